#include "wire.h"

#include <cstring>

namespace {

/** Marshals; what is written begins at a multiple of eight. */
class Writer
{
public:
    explicit Writer(bool bigEndian)
        : m_bigEndian(bigEndian)
    {
    }

    void pad(size_t boundary)
    {
        bytes.resize((bytes.size() + boundary - 1) / boundary * boundary, '\0');
    }

    void number(uint64_t value, size_t size)
    {
        pad(size);
        for (size_t i = 0; i < size; ++i)
            bytes += char(value >> 8 * (m_bigEndian ? size - 1 - i : i));
    }

    void text(const Bytes &value)
    {
        number(value.size(), 4);
        bytes += value + '\0';
    }

    void signature(const Bytes &value)
    {
        bytes += char(value.size()) + value + '\0';
    }

    /** Has @p write write an array's elements, which begin at a multiple of @p boundary. */
    template <typename Write> void array(size_t boundary, Write write)
    {
        number(0, 4);
        const size_t length = bytes.size() - 4;
        pad(boundary);
        const size_t begin = bytes.size();
        write();
        Writer patch(m_bigEndian);
        patch.number(bytes.size() - begin, 4);
        bytes.replace(length, 4, patch.bytes);
    }

    void value(const char *&type, Lots &lots);

    Bytes bytes;

private:
    const bool m_bigEndian;
};

const char *const texts[] = {
    "",
    "a",
    "code",
    "option-changed",
    "vantora.AuthService",
    ":1.5",
    ":1.6",
    "smartcard",
    "sudis",
    "login",
    "unlock",
    "worker/can-switch-to-user",
    "type",
    "name",
    "value",
    "uid",
    "worker",
    "last-login-date",
    "devlock/show-notifications",
    "%s%n",
    "worker/service-factors/unlock",
    "worker/is-user-settable",
    "\xe2\x80\xae",
    "<node/>",
    "<node><node>",
};

const char *const paths[] = {"/", "/vantora/AuthService", "/vantora/AuthService/Settings", "/a/b"};

size_t boundaryOf(char type)
{
    switch (type) {
    case 'y':
    case 'g':
    case 'v':
        return 1;
    case 'n':
    case 'q':
        return 2;
    case 'x':
    case 't':
    case 'd':
    case '(':
    case '{':
        return 8;
    default:
        return 4;
    }
}

/** What follows a complete type. */
const char *skip(const char *type)
{
    while (*type == 'a')
        ++type;
    if (*type != '(' && *type != '{')
        return type + 1;
    int depth = 0;
    do {
        depth += *type == '(' || *type == '{' ? 1 : *type == ')' || *type == '}' ? -1 : 0;
        ++type;
    } while (depth > 0);
    return type;
}

Bytes drawText(Lots &lots)
{
    if (draw(lots, 40) == 0)
        return Bytes(size_t(1) << draw(lots, 17), 'x');
    return texts[draw(lots, sizeof texts / sizeof *texts)];
}

uint64_t drawNumber(Lots &lots)
{
    const uint64_t numbers[] = {0, 1, 2, 4, 5, 1000, 0x7fffffff, 0xffffffff, ~uint64_t(0), lots()};
    return numbers[draw(lots, sizeof numbers / sizeof *numbers)];
}

Bytes drawSignature(Lots &lots, int depth)
{
    static const char basic[] = "ybnqiuxtdsog";
    const auto basicType = [&lots] { return Bytes(1, basic[draw(lots, sizeof basic - 1)]); };
    switch (depth < 5 ? draw(lots, 10) : 0) {
    case 1:
    case 2:
        return "v";
    case 3:
        return "ay";
    case 4:
        return "a{sv}";
    case 5:
        return "a" + drawSignature(lots, depth + 1);
    case 6:
        return "a{" + basicType() + drawSignature(lots, depth + 1) + "}";
    case 7: {
        Bytes type = "(";
        for (unsigned count = 1 + draw(lots, 3); count > 0; --count)
            type += drawSignature(lots, depth + 1);
        return type + ")";
    }
    default:
        return basicType();
    }
}

void Writer::value(const char *&type, Lots &lots)
{
    const char kind = *type++;
    switch (kind) {
    case 'b':
        number(draw(lots, 2), 4);
        break;
    case 's':
        text(drawText(lots));
        break;
    case 'o':
        text(paths[draw(lots, sizeof paths / sizeof *paths)]);
        break;
    case 'g':
        signature(draw(lots, 2) ? "a{sv}" : "");
        break;
    case 'v': {
        // Within the 64 containers that libdbus lets through.
        const Bytes content = bytes.size() < 10000 ? ::drawSignature(lots) : "y";
        signature(content);
        const char *at = content.c_str();
        value(at, lots);
        break;
    }
    case 'a': {
        const char *const element = type;
        type = skip(element);
        const unsigned count = draw(lots, 20) == 0 && *element == 'y' ? 1U << draw(lots, 18) : draw(lots, 4);
        array(boundaryOf(*element), [&] {
            for (unsigned i = 0; i < count; ++i) {
                const char *at = element;
                value(at, lots);
            }
        });
        break;
    }
    case '(':
    case '{':
        pad(8);
        while (*type != ')' && *type != '}')
            value(type, lots);
        ++type;
        break;
    default: // A number.
        number(drawNumber(lots), boundaryOf(kind));
    }
}

} // namespace

unsigned draw(Lots &lots, unsigned below)
{
    return unsigned(lots() % below);
}

Bytes drawSignature(Lots &lots)
{
    return drawSignature(lots, 0);
}

Bytes drawBody(const Bytes &signature, Lots &lots, bool bigEndian)
{
    Writer writer(bigEndian);
    for (const char *type = signature.c_str(); *type != '\0';)
        writer.value(type, lots);
    return writer.bytes;
}

Bytes textBody(std::initializer_list<Bytes> values, bool bigEndian)
{
    Writer writer(bigEndian);
    for (const Bytes &value : values)
        writer.text(value);
    return writer.bytes;
}

Bytes Message::marshalled(bool bigEndian) const
{
    Writer writer(bigEndian);
    writer.bytes = Bytes(1, bigEndian ? 'B' : 'l') + char(type) + '\0' + '\1';
    writer.number(body.size(), 4);
    writer.number(serial, 4);
    writer.array(8, [&] {
        const auto field = [&writer](char code, const char *kind, const Bytes &value) {
            if (value.empty())
                return;
            writer.pad(8);
            writer.bytes += code;
            writer.signature(kind);
            if (*kind == 'g')
                writer.signature(value);
            else
                writer.text(value);
        };
        field(1, "o", path);
        field(2, "s", interface);
        field(3, "s", member);
        field(4, "s", errorName);
        if (replySerial != 0) {
            writer.pad(8);
            writer.bytes += '\5';
            writer.signature("u");
            writer.number(replySerial, 4);
        }
        field(6, "s", destination);
        field(7, "s", sender);
        field(8, "g", signature);
    });
    writer.pad(8);
    return writer.bytes + body;
}

size_t Message::read(const Bytes &bytes)
{
    const auto numberAt = [&bytes](size_t at) {
        uint32_t number = 0;
        memcpy(&number, bytes.data() + at, 4);
        return size_t(number);
    };
    if (bytes.size() < 16)
        return 0;
    const size_t fieldsEnd = 16 + numberAt(12);
    const size_t bodyBegin = (fieldsEnd + 7) / 8 * 8;
    const size_t length = bodyBegin + numberAt(4);
    if (bytes.size() < length)
        return 0;
    type = uint8_t(bytes[1]);
    serial = uint32_t(numberAt(8));
    body = bytes.substr(bodyBegin, length - bodyBegin);
    for (size_t at = 16; at < fieldsEnd;) {
        const uint8_t code = uint8_t(bytes[at]);
        const char kind = bytes[at + 2];
        at += 4;
        if (kind == 'u') {
            if (code == 5)
                replySerial = uint32_t(numberAt(at));
            at += 4;
        } else {
            const bool isSignature = kind == 'g';
            const size_t size = isSignature ? uint8_t(bytes[at]) : numberAt(at);
            at += isSignature ? 1 : 4;
            Bytes *const fields[] = {nullptr, &path,        &interface, &member,   &errorName,
                                     nullptr, &destination, &sender,    &signature};
            if (code < std::size(fields) && fields[code])
                *fields[code] = bytes.substr(at, size);
            at += size + 1;
        }
        at = (at + 7) / 8 * 8;
    }
    return length;
}

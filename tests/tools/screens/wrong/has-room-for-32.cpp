// Has room for 32 characters.

#include "../screen.h"

#include <array>

namespace {

class HasRoomFor32 : public Screen
{
    void enter(const QString &code) override
    {
        for (int i = 0; i < code.size(); ++i)
            m_field.at(size_t(i)) = code.at(i);
        ask(QString(m_field.data(), code.size()));
    }

    std::array<QChar, 32> m_field;
};

const Wrong<HasRoomFor32> hasRoomFor32("has-room-for-32", "wrong-codes-many", "ends");

} // namespace

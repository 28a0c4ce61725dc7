#include "ctl.h"

#include "json.h"

#include <algorithm>
#include <gio/gio.h>
#include <gio/gunixsocketaddress.h>
#include <iostream>

namespace {

class ControlClient
{
public:
    explicit ControlClient(const std::string &path)
    {
        g_autoptr(GSocketClient) client = g_socket_client_new();
        g_autoptr(GSocketAddress) address = g_unix_socket_address_new(path.c_str());
        g_autoptr(GError) error = nullptr;
        m_connection = g_socket_client_connect(client, G_SOCKET_CONNECTABLE(address), nullptr, &error);
        if (!m_connection)
            throw std::runtime_error("no stand-in answers on " + path + ": " + error->message);
        m_answers = g_data_input_stream_new(g_io_stream_get_input_stream(G_IO_STREAM(m_connection)));
    }
    ~ControlClient()
    {
        g_clear_object(&m_answers);
        g_clear_object(&m_connection);
    }
    ControlClient(const ControlClient &) = delete;
    ControlClient &operator=(const ControlClient &) = delete;

    /** Prints the answer and returns whether it is a good one. */
    bool ask(std::string request)
    {
        // JSON has no line breaks but between its words.
        std::replace(request.begin(), request.end(), '\n', ' ');
        request += '\n';
        GOutputStream *requests = g_io_stream_get_output_stream(G_IO_STREAM(m_connection));
        if (!g_output_stream_write_all(requests, request.data(), request.size(), nullptr, nullptr, nullptr))
            throw std::runtime_error("the stand-in has gone");
        g_autofree char *answer = g_data_input_stream_read_line(m_answers, nullptr, nullptr, nullptr);
        if (!answer)
            throw std::runtime_error("the stand-in has gone without an answer");
        std::cout << answer << std::endl;
        return JsonMembers(parseJson(answer)).boolean("ok").value_or(false);
    }

private:
    GSocketConnection *m_connection = nullptr;
    GDataInputStream *m_answers = nullptr;
};

} // namespace

int runCtl(const std::string &controlPath, const std::vector<std::string> &requests)
{
    bool good = true;
    try {
        ControlClient client(controlPath);
        for (const std::string &request : requests) {
            if (request != "-") {
                good = client.ask(request) && good;
                continue;
            }
            for (std::string line; std::getline(std::cin, line);)
                good = client.ask(line) && good;
        }
    } catch (const std::runtime_error &error) {
        std::cerr << "authd-standin: " << error.what() << std::endl;
        return 1;
    }
    return good ? 0 : 1;
}

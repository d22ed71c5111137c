#include "HvSipResponderOptions.h"

#include <arpa/inet.h>

namespace {

const char fs_defaultAddress[] = "127.0.0.1";
const unsigned int fs_defaultPort = 5060;

} // namespace

HvSipResponderOptions::HvSipResponderOptions()
    : m_address(fs_defaultAddress), m_addressValue(htonl(INADDR_LOOPBACK)), m_udpPort(fs_defaultPort),
      m_tcpPort(fs_defaultPort), m_stats(false), m_verbose(false), m_realTime(false)
{
}

const char* HvSipResponderOptions::sUsage()
{
    return "Usage: hv-sip-responder [options]\n"
           "A stateless SIP responder on UDP and TCP: OPTIONS is answered 200, ACK is\n"
           "absorbed, other methods get 405 or 501, malformed requests 400 or nothing.\n"
           "\n"
           "Options:\n"
           "  --address A      listen address, a dotted quad (default 127.0.0.1)\n"
           "  --port P         UDP and TCP port (default 5060; 0 = any free port)\n"
           "  --udp-port P     UDP port only (overrides --port)\n"
           "  --tcp-port P     TCP port only (overrides --port)\n"
           "  --stats          print one line of counts per second\n"
           "  --verbose        at exit print every allocator tag's live count at start and end\n"
           "  --realtime       run the library's threads SCHED_RR when the system allows it\n"
           "  --help           print this text and exit\n"
           "  --version        print the version and exit\n"
           "\n"
           "SIGINT or SIGTERM stops it: exit 0 when everything it allocated was given back,\n"
           "1 on a leak, 2 on a usage error, 3 when it cannot bind.\n";
}

bool HvSipResponderOptions::sParsePort(const std::string& text, unsigned int& port)
{
    if (text.empty() || text.size() > 5)
        return false;
    unsigned int value = 0;
    for (char c : text) {
        if (c < '0' || c > '9')
            return false;
        value = value * 10 + static_cast<unsigned int>(c - '0');
    }
    if (value > 65535)
        return false;
    port = value;
    return true;
}

bool HvSipResponderOptions::sParseAddress(const std::string& text, unsigned int& value)
{
    // inet_addr() and inet_aton() take "1", "0x7f.1" and other old forms;
    // a listen address is only ever meant as four decimal numbers.
    unsigned int parts[4] = {0, 0, 0, 0};
    std::size_t at = 0;
    for (int part = 0; part < 4; ++part) {
        std::size_t digits = 0;
        unsigned int number = 0;
        while (at < text.size() && text[at] >= '0' && text[at] <= '9') {
            number = number * 10 + static_cast<unsigned int>(text[at] - '0');
            ++at;
            if (++digits > 3)
                return false;
        }
        if (digits == 0 || number > 255)
            return false;
        parts[part] = number;
        if (part < 3) {
            if (at >= text.size() || text[at] != '.')
                return false;
            ++at;
        }
    }
    if (at != text.size())
        return false;
    value = htonl((parts[0] << 24) | (parts[1] << 16) | (parts[2] << 8) | parts[3]);
    return true;
}

HvSipResponderOptions::Action HvSipResponderOptions::fail(const std::string& error)
{
    m_error = error;
    return Action::UsageError;
}

HvSipResponderOptions::Action HvSipResponderOptions::parse(int argc, const char* const* argv)
{
    std::vector<std::string> arguments;
    for (int i = 1; i < argc; ++i)
        arguments.push_back(argv[i] ? argv[i] : "");
    return parse(arguments);
}

HvSipResponderOptions::Action HvSipResponderOptions::parse(const std::vector<std::string>& arguments)
{
    bool udpGiven = false;
    bool tcpGiven = false;
    unsigned int port = fs_defaultPort;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        std::string name = arguments[i];
        std::string value;
        bool inlineValue = false;
        std::size_t equals = name.find('=');
        if (name.compare(0, 2, "--") == 0 && equals != std::string::npos) {
            value = name.substr(equals + 1);
            name = name.substr(0, equals);
            inlineValue = true;
        }

        if (name == "--help" || name == "-h") {
            if (inlineValue)
                return fail("option '" + name + "' takes no value");
            return Action::Help;
        }
        if (name == "--version") {
            if (inlineValue)
                return fail("option '" + name + "' takes no value");
            return Action::Version;
        }
        if (name == "--stats" || name == "--verbose" || name == "--realtime") {
            if (inlineValue)
                return fail("option '" + name + "' takes no value");
            (name == "--stats" ? m_stats : name == "--verbose" ? m_verbose : m_realTime) = true;
            continue;
        }
        if (name == "--address" || name == "--port" || name == "--udp-port" || name == "--tcp-port") {
            if (!inlineValue) {
                if (i + 1 >= arguments.size())
                    return fail("option '" + name + "' needs a value");
                value = arguments[++i];
            }
            if (name == "--address") {
                unsigned int address = 0;
                if (!sParseAddress(value, address))
                    return fail("invalid address '" + value + "' for --address (expected a dotted quad such as 127.0.0.1)");
                m_address = value;
                m_addressValue = address;
                continue;
            }
            unsigned int parsed = 0;
            if (!sParsePort(value, parsed))
                return fail("invalid port '" + value + "' for " + name + " (expected 0 to 65535)");
            if (name == "--port") {
                port = parsed;
            } else if (name == "--udp-port") {
                m_udpPort = parsed;
                udpGiven = true;
            } else {
                m_tcpPort = parsed;
                tcpGiven = true;
            }
            continue;
        }
        if (name.compare(0, 1, "-") == 0)
            return fail("unknown option '" + name + "'");
        return fail("unexpected argument '" + name + "'");
    }
    if (!udpGiven)
        m_udpPort = port;
    if (!tcpGiven)
        m_tcpPort = port;
    return Action::Run;
}

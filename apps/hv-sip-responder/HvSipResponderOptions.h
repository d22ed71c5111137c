// The command line of hv-sip-responder: where to listen, what to print, and
// whether the run is a real one or only --help / --version. Parsing never
// exits or prints; main() decides what to do with the outcome.
#ifndef HVSIP_RESPONDER_HVSIPRESPONDEROPTIONS_H
#define HVSIP_RESPONDER_HVSIPRESPONDEROPTIONS_H

#include <string>
#include <vector>

class HvSipResponderOptions {
public:
    // What the command line asks for.
    enum class Action { Run, Help, Version, UsageError };

    // The defaults: 127.0.0.1, UDP and TCP port 5060, no stats, not verbose,
    // ordinary scheduling.
    HvSipResponderOptions();

    // Reads argv[1..argc-1]. Options take their value as the next word or
    // after '=' ("--port 5070", "--port=5070"); --udp-port and --tcp-port
    // override --port whatever their order. --help and --version win over
    // everything after them that parses. On a usage error getError() tells
    // what was wrong, naming the option or word.
    Action parse(int argc, const char* const* argv);
    // The same over a list of words (argv without argv[0]).
    Action parse(const std::vector<std::string>& arguments);

    // Listen address as given (dotted quad) and in network byte order.
    const std::string& getAddress() const { return m_address; }
    unsigned int getAddressValue() const { return m_addressValue; }
    // Ports in host order; 0 means any free port.
    unsigned int getUdpPort() const { return m_udpPort; }
    unsigned int getTcpPort() const { return m_tcpPort; }
    bool getStats() const { return m_stats; }
    bool getVerbose() const { return m_verbose; }
    // Real-time threads are asked for, not assumed: on a shared machine they
    // would starve everything else (a load generator beside the responder
    // above all), so they stay off unless the operator wants them.
    bool getRealTime() const { return m_realTime; }
    // The usage error's text, without the program name; empty otherwise.
    const std::string& getError() const { return m_error; }

    // The --help text (ends in a line feed).
    static const char* sUsage();
    // A port in 0..65535, decimal digits only; false for anything else.
    static bool sParsePort(const std::string& text, unsigned int& port);
    // A dotted quad (four decimal numbers 0..255); the value in network
    // byte order. False for anything else, names included.
    static bool sParseAddress(const std::string& text, unsigned int& value);

private:
    Action fail(const std::string& error);

    std::string m_address;
    unsigned int m_addressValue;
    unsigned int m_udpPort;
    unsigned int m_tcpPort;
    bool m_stats;
    bool m_verbose;
    bool m_realTime;
    std::string m_error;
};

#endif

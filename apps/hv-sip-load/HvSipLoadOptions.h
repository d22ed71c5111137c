// The command line of hv-sip-load: every option with its default, read from
// argv into plain values. Reading never exits or prints; the caller decides
// what to do with help, version and usage errors.
#ifndef HVSIPLOAD_HVSIPLOADOPTIONS_H
#define HVSIPLOAD_HVSIPLOADOPTIONS_H

#include <string>

struct HvSipLoadOptions {
    // What parse() found on the command line.
    enum class Action {
        Run,      // every option read; the values below hold
        Help,     // --help was given
        Version,  // --version was given
        Error     // a usage error; getError() names what was wrong
    };

    std::string targetHost = "127.0.0.1";  // --target HOST part, a dotted quad or a name
    unsigned int targetPort = 5060;        // --target PORT part
    bool tcp = false;                      // --transport tcp
    unsigned int connections = 1;          // --connections, TCP only
    bool openLoop = false;                 // --rate given
    unsigned int concurrency = 10;         // --concurrency (closed loop)
    double rate = 0.0;                     // --rate, new transactions per second (open loop)
    bool countMode = false;                // --count given instead of --duration
    double durationSeconds = 10.0;         // --duration
    unsigned long count = 0;               // --count
    unsigned int timeoutMs = 32000;        // --timeout, 64 * T1 by default
    unsigned int t1Ms = 500;               // --t1, RFC 3261 T1
    bool retransmit = true;                // cleared by --no-retransmit
    bool json = false;                     // --json

    // Reads argv[1..argc-1]; options are "--name value" or "--name=value".
    // Returns Help or Version as soon as one is seen, Error at the first
    // fault (the text is then in error), Run otherwise.
    Action parse(int argc, const char* const* argv);

    // The usage error of the last parse() that returned Error, without the
    // program name ("unknown option '--x'").
    const std::string& getError() const { return error; }

    // The text --help prints.
    static const char* sUsage();

    std::string error;
};

#endif

#include "HvSipLoadTransport.h"

#include <arpa/inet.h>

HvSipLoadSink::~HvSipLoadSink() = default;

HvSipLoadTransport::~HvSipLoadTransport() = default;

std::string hvSipDottedQuad(unsigned int networkOrderAddress)
{
    const unsigned int host = ntohl(networkOrderAddress);
    return std::to_string((host >> 24) & 0xFF) + "." + std::to_string((host >> 16) & 0xFF) + "." +
           std::to_string((host >> 8) & 0xFF) + "." + std::to_string(host & 0xFF);
}

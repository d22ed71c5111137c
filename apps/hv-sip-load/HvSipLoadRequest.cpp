#include "HvSipLoadRequest.h"

#include <cstdio>

const char* const HvSipLoadRequest::kMagicCookie = "z9hG4bK";

std::string HvSipLoadRequest::sBuild(const Fields& fields)
{
    const std::string target = fields.targetHost + ":" + std::to_string(fields.targetPort);
    const std::string local = fields.localHost + ":" + std::to_string(fields.localPort);
    std::string contactParameters;
    if (fields.transport != "UDP") {
        contactParameters = ";transport=";
        for (char c : fields.transport)
            contactParameters += static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
    }

    std::string text;
    text.reserve(512);
    text += "OPTIONS sip:" + target + " SIP/2.0\r\n";
    text += "Via: SIP/2.0/" + fields.transport + " " + local + ";branch=" + fields.branch + ";rport\r\n";
    text += "Max-Forwards: 70\r\n";
    text += "To: <sip:" + target + ">\r\n";
    text += "From: <sip:hv-sip-load@" + local + ">;tag=" + fields.fromTag + "\r\n";
    text += "Call-ID: " + fields.callId + "\r\n";
    text += "CSeq: " + std::to_string(fields.cseq) + " OPTIONS\r\n";
    text += "Contact: <sip:hv-sip-load@" + local + contactParameters + ">\r\n";
    text += "Accept: application/sdp\r\n";
    text += "Content-Length: 0\r\n";
    text += "\r\n";
    return text;
}

std::string HvSipLoadRequest::sMakeBranch(const std::string& runId, std::uint64_t number)
{
    char digits[32];
    std::snprintf(digits, sizeof digits, "%llx", static_cast<unsigned long long>(number));
    return std::string(kMagicCookie) + runId + "." + digits;
}

HvSipLoadRequest::Verdict HvSipLoadRequest::sCheck(const HvSipMessage& reply, HvSipMessage::Error error,
                                                   const std::string& callId, unsigned int cseq)
{
    if (error != HvSipMessage::Error::None || reply.isRequest())
        return Verdict::Malformed;
    const unsigned int status = reply.getStatusCode();
    if (status < 100 || status > 699)
        return Verdict::Malformed;
    if (status < 200)
        return Verdict::Provisional;
    if (callId != reply.getCallId().c_str() || reply.getCSeqNumber() != cseq ||
        std::string(reply.getCSeqMethod().c_str()) != "OPTIONS")
        return Verdict::Malformed;
    return status == 200 ? Verdict::Success : Verdict::WrongStatus;
}

std::string HvSipLoadRequest::sTopBranch(const HvSipMessage& reply)
{
    if (reply.getVias().empty())
        return std::string();
    return HvSipMessage::sGetParameter(reply.getVias().front(), "branch").c_str();
}

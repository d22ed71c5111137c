#include "HvSipResponderCore.h"

#include "HvSipMessage.h"

#include <HvUtil/HvByteArray.h>

#include <string>

const char* const HvSipResponderCore::kAllow = "Allow: OPTIONS\r\n";
const char* const HvSipResponderCore::kAccept = "Accept: application/sdp\r\n";
const char* const HvSipResponderCore::kSupported = "Supported:\r\n";

namespace {

// Methods this responder knows but does not serve (405); names are
// case-sensitive, so "options" is none of them.
const char* const kKnownMethods[] = {"INVITE",    "BYE",    "CANCEL",  "REGISTER", "PRACK", "SUBSCRIBE",
                                     "NOTIFY",    "PUBLISH", "INFO",   "REFER",    "MESSAGE", "UPDATE"};

bool isKnownMethod(const HvString& method)
{
    for (const char* known : kKnownMethods)
        if (method.compareWith(known) == 0)
            return true;
    return false;
}

// The reason of a 400, or null when the request is well formed.
const char* faultOf(const HvSipMessage& request, HvSipMessage::Error error)
{
    if (request.hasBadContentLength())
        return "Bad Content-Length";
    if (error != HvSipMessage::Error::None)
        return "Malformed Header";
    if (!request.hasFrom())
        return "Missing From";
    if (!request.hasTo())
        return "Missing To";
    if (!request.hasCallId())
        return "Missing Call-ID";
    if (!request.hasCSeq())
        return "Missing CSeq";
    if (!request.hasMaxForwards())
        return "Missing Max-Forwards";
    if (request.getFrom().length() == 0 || request.getTo().length() == 0 || request.getCallId().length() == 0 ||
        request.getCSeqMethod().length() == 0)
        return "Malformed Header";
    if (request.getCSeqMethod().compareWith(request.getMethod().c_str()) != 0)
        return "CSeq Method Mismatch";
    return nullptr;
}

} // namespace

HvSipResponderCore::Result HvSipResponderCore::sHandle(const HvByteArray* data, unsigned int offset,
                                                       unsigned int length, const HvSipSource& source)
{
    Result result;
    result.consumed = length;
    try {
        HvSipMessage request;
        HvSipMessage::Error error = request.parse(data, offset, length);
        const long bodyLength = request.getContentLength();
        if (error == HvSipMessage::Error::None && bodyLength >= 0 &&
            static_cast<unsigned long>(bodyLength) <= length - request.getBodyOffset())
            result.consumed = request.getBodyOffset() + static_cast<unsigned int>(bodyLength);
        if (error == HvSipMessage::Error::Empty || error == HvSipMessage::Error::BadStartLine)
            return result;
        if (!request.isRequest()) {
            result.outcome = Outcome::ResponseDropped;
            return result;
        }
        // Without a readable Via there is nowhere to send a reply.
        const std::vector<HvString>& vias = request.getVias();
        if (vias.empty() || !HvSipMessage::sIsViaReadable(vias[0]))
            return result;
        // An ACK is never answered, however it is written.
        if (request.getMethod().compareWith("ACK") == 0) {
            result.outcome = Outcome::AckAbsorbed;
            return result;
        }

        const char* reason = faultOf(request, error);
        std::string extra;
        if (reason) {
            result.status = 400;
        } else if (request.getMethod().compareWith("OPTIONS") == 0) {
            result.status = 200;
            extra.append(kAllow).append(kAccept).append(kSupported);
        } else if (isKnownMethod(request.getMethod())) {
            result.status = 405;
            extra.append(kAllow);
        } else {
            result.status = 501;
        }

        result.replyAddress = source.address;
        if (HvSipMessage::sHasParameter(vias[0], "rport")) {
            result.replyPort = source.port;
        } else {
            unsigned int port = HvSipMessage::sGetViaPort(vias[0]);
            result.replyPort = port == 0 ? 5060 : port;
        }
        result.reply = HvSipReply::sBuild(request, source, result.status, reason, extra);
        result.outcome = Outcome::Replied;
    } catch (...) {
        // Only allocation can fail here; an unanswerable request is dropped.
        result = Result();
        result.consumed = length;
    }
    return result;
}

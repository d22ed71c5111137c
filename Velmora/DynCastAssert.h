// Asserting down-cast: a null base pointer or one of the wrong run-time type
// is reported through Velmora::Assertion, then the (possibly null) result is returned.
#ifndef VELMORA_DYNCASTASSERT_H
#define VELMORA_DYNCASTASSERT_H

#include <Velmora/Assertion.h>

#include <string>

namespace Velmora {

// `typeName` and `expression` spell the cast as written at the call site,
// for example DynCastAssertNoT<HvTCPEvent>(pEvent, "HvTCPEvent", "pEvent", file, line).
template <class Derived, class Base>
Derived* DynCastAssertNoT(Base* pointer, const char* typeName, const char* expression,
                          const char* file, int line)
{
    Derived* result = pointer ? dynamic_cast<Derived*>(pointer) : nullptr;
    if (!result) {
        std::string text = std::string("VELMORA_DYNCAST_ASSERT(") + typeName + ", " + expression + ") != 0";
        Assertion(false, text.c_str(), file, line);
    }
    return result;
}

} // namespace Velmora

#endif

// Start and stop of the network library the resolver runs on. Calls nest:
// the library is started by the first initializeLibrary() and stopped by the
// closeLibrary() that balances it.
#ifndef VELMORA_NET_H
#define VELMORA_NET_H

namespace Velmora {
namespace Net {

// Returns true when the library is started (now or already).
bool initializeLibrary();
void closeLibrary();
// Number of initializeLibrary() calls not yet balanced by closeLibrary().
int getInitializationCount();

} // namespace Net
} // namespace Velmora

#endif

#include <HvUtil/HvProcess.h>
#include <HvUtil/HvAssertionFailure.h>

#include <Velmora/Net.h>
#include <Velmora/MemAllocator.h>

#include <ace/Object_Manager.h>

#include <mutex>

std::atomic<HvProcess*> HvProcess::sm_pTheOneAndOnly{nullptr};

// Two first callers of sGetCurrent() must not both build an instance.
static std::mutex fs_creationMutex;

namespace {

// At-exit clean-up: gives back the reference sGetCurrent() took, so that the
// instance goes unless a handle still holds it, and goes only once.
void releaseProcess(void* object, void*)
{
    static_cast<HvProcess*>(object)->Release(true);
}

} // namespace

HvProcess::HvProcess()
    : HvThread(nullptr)
{
    if (sm_pTheOneAndOnly.load() != nullptr)
        HvAssertionFailure::sThrow("There can only be one HvProcess object", "HvProcess", 46, HV_COMPILE_TIMESTAMP);
    setToken(sGetCurrentThreadToken());
    setState(INITIALIZING);
    // Published last, so that nobody sees a half-built instance.
    HvProcess* expected = nullptr;
    if (!sm_pTheOneAndOnly.compare_exchange_strong(expected, this))
        HvAssertionFailure::sThrow("There can only be one HvProcess object", "HvProcess", 46, HV_COMPILE_TIMESTAMP);
}

HvProcess::~HvProcess()
{
    HvProcess* self = this;
    sm_pTheOneAndOnly.compare_exchange_strong(self, nullptr);
}

HvProcess* HvProcess::sGetCurrent()
{
    HvProcess* process = sm_pTheOneAndOnly.load();
    if (process)
        return process;
    std::lock_guard<std::mutex> lock(fs_creationMutex);
    process = sm_pTheOneAndOnly.load();
    if (process)
        return process;
    process = new HvProcess;
    // The instance owns one reference on itself until exit: a handle made on
    // it (notifying observers makes one, for instance) must never be the
    // last one and delete it under the program.
    process->AddRef();
    ACE_Object_Manager::at_exit(process, &releaseProcess, nullptr, "HvProcess");
    return process;
}

void HvProcess::run()
{
    // The main thread sleeps until someone signals it, with the network
    // library started for the program's lifetime.
    Velmora::Net::initializeLibrary();
    wait(kNoTimeout);
    Velmora::Net::closeLibrary();
}

void* HvProcess::operator new(std::size_t size)
{
    return Velmora::NoSizeMemAllocator::allocate(size, "HvProcess");
}

void HvProcess::operator delete(void* p)
{
    Velmora::NoSizeMemAllocator::deallocate(p, "HvProcess");
}

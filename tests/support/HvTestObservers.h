// Test observers and shutdown-hook access shared by the dispatcher tests.
#ifndef HVUTIL_TESTS_HVTESTOBSERVERS_H
#define HVUTIL_TESTS_HVTESTOBSERVERS_H

#include <HvUtil/HvObservable.h>
#include <HvUtil/HvObserver.h>
#include <HvUtil/HvThread.h>

#include <pthread.h>

#include <cstddef>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace hvtest {

// Records what it is given and on which thread.
class RecordingObserver : public HvObserver {
public:
    void onNotification(HvHandle<HvObservable> source, HvHandle<HvObject> object) override
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_sources.push_back(source.get());
        m_objects.push_back(object.get());
        m_threads.push_back(pthread_self());
    }
    std::size_t count()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_objects.size();
    }

    std::mutex m_mutex;
    std::vector<const HvObservable*> m_sources;
    std::vector<const HvObject*> m_objects;
    std::vector<pthread_t> m_threads;
};

// The hook installed in `slot`, read without changing it.
inline HvThread::ShutdownHookFunction installedHook(HvThread::ShutdownHook slot)
{
    HvThread::ShutdownHookFunction hook = HvThread::sSetShutdownHook(slot, nullptr);
    HvThread::sSetShutdownHook(slot, hook);
    return hook;
}

// Calls `post` perProducer times on each of `producers` threads running at
// once, and returns when all of them are done.
inline void postConcurrently(int producers, int perProducer, const std::function<void()>& post)
{
    std::vector<std::thread> threads;
    for (int producer = 0; producer < producers; ++producer) {
        threads.emplace_back([&] {
            for (int number = 0; number < perProducer; ++number)
                post();
        });
    }
    for (std::thread& thread : threads)
        thread.join();
}

} // namespace hvtest

#endif

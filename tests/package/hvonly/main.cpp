// A program that calls HvUtil and nothing of Velmora itself, so that
// libVelmora is loaded only because libHvUtil needs it.
#include <HvUtil/HvUtil.h>

#include <pthread.h>

#include <cstdio>

int main()
{
    if (HvThread::sGetCurrentThreadToken() != pthread_self()) {
        std::fprintf(stderr, "thread token is not the calling thread\n");
        return 1;
    }
    std::printf("HvUtil-only consumer ok\n");
    return 0;
}

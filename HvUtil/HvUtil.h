// Every public header of the library.
#ifndef HVUTIL_HVUTIL_H
#define HVUTIL_HVUTIL_H

#include <HvUtil/HvAggregatedObserver.h>
#include <HvUtil/HvAssertionFailure.h>
#include <HvUtil/HvBaseEvent.h>
#include <HvUtil/HvByteArray.h>
#include <HvUtil/HvByteArrayInputStream.h>
#include <HvUtil/HvByteArrayOutputStream.h>
#include <HvUtil/HvConstString.h>
#include <HvUtil/HvCppInputStream.h>
#include <HvUtil/HvCriticalSection.h>
#include <HvUtil/HvErrorStream.h>
#include <HvUtil/HvEventQueue.h>
#include <HvUtil/HvException.h>
#include <HvUtil/HvGhbnError.h>
#include <HvUtil/HvHandle.h>
#include <HvUtil/HvHashTableBase.h>
#include <HvUtil/HvInetAddress.h>
#include <HvUtil/HvInputStream.h>
#include <HvUtil/HvInterface.h>
#include <HvUtil/HvKeyTable.h>
#include <HvUtil/HvMultiSourceObserver.h>
#include <HvUtil/HvMutex.h>
#include <HvUtil/HvObject.h>
#include <HvUtil/HvObservable.h>
#include <HvUtil/HvObserver.h>
#include <HvUtil/HvOutputSink.h>
#include <HvUtil/HvOutputStream.h>
#include <HvUtil/HvProcess.h>
#include <HvUtil/HvRecursiveMutex.h>
#include <HvUtil/HvSocketError.h>
#include <HvUtil/HvStreamTokenizer.h>
#include <HvUtil/HvString.h>
#include <HvUtil/HvStringBuffer.h>
#include <HvUtil/HvSystemError.h>
#include <HvUtil/HvThread.h>
#include <HvUtil/HvThreadPool.h>
#include <HvUtil/HvTokenTable.h>
#include <HvUtil/HvWorkerThread.h>

#endif

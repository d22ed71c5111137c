#include <HvUtil/HvSocketFactory.h>
#include <HvUtil/HvCriticalSection.h>
#include <HvUtil/HvSocketImpl.h>
#include <HvUtil/HvThread.h>
#include <HvUtil/HvTokenTable.h>

#include <Velmora/Logger.h>
#include <Velmora/TraceScope.h>

#include <vector>

namespace {

const char kSource[] = "HvSocketFactory";

// Line the closing of all sockets is reported from; log readers search for it.
const int kCloseAllLine = 65;

Velmora::AceCleanupLogger& logger()
{
    static Velmora::AceCleanupLogger& instance = Velmora::fileScopeLogger("HvSocketFactory");
    return instance;
}

// Enters the library-wide section for one scope.
class GlobalSection {
public:
    GlobalSection() { HvCriticalSection::sm_pCriticalSection->enter(); }
    ~GlobalSection() { HvCriticalSection::sm_pCriticalSection->leave(); }
    GlobalSection(const GlobalSection&) = delete;
    GlobalSection& operator=(const GlobalSection&) = delete;
};

} // namespace

std::atomic<HvTokenTable*> HvSocketFactory::sm_pHandleTable{nullptr};
int HvSocketFactory::HvInitializer::sm_Counter = 0;

HvSocketFactory::HvInitializer::HvInitializer()
{
    if (sm_Counter++ == 0)
        HvThread::sSetShutdownHook(HvThread::CLOSE_SOCKETS, &HvSocketFactory::sCloseAll);
}

HvSocketFactory::HvInitializer::~HvInitializer()
{
    if (--sm_Counter != 0)
        return;
    // Cleared first, so that the sockets the release destroys find no
    // registry to touch.
    HvTokenTable* table = sm_pHandleTable.exchange(nullptr);
    if (table)
        table->Release(true);
}

void HvSocketFactory::sAddHandle(int descriptor, HvSocketImpl* socket)
{
    HvTokenTable* table = sm_pHandleTable.load();
    if (!table) {
        GlobalSection section;
        table = sm_pHandleTable.load();
        if (!table) {
            table = new HvTokenTable;
            table->AddRef();
            sm_pHandleTable.store(table);
        }
    }
    // The socket an earlier owner of this number left behind is released
    // here, outside any lock.
    HvHandle<HvObject> replaced = table->put(static_cast<unsigned int>(descriptor), socket);
}

HvHandle<HvSocketImpl> HvSocketFactory::sFromHandle(int descriptor)
{
    HvTokenTable* table = sm_pHandleTable.load();
    if (!table)
        return HvHandle<HvSocketImpl>();
    HvHandle<HvObject> found = table->get(static_cast<unsigned int>(descriptor));
    return HvHandle<HvSocketImpl>(found);
}

void HvSocketFactory::sRemoveHandle(int descriptor)
{
    HvTokenTable* table = sm_pHandleTable.load();
    if (table)
        table->remove(static_cast<unsigned int>(descriptor));
}

unsigned int HvSocketFactory::sSocketNum()
{
    GlobalSection section;
    HvTokenTable* table = sm_pHandleTable.load();
    if (!table)
        return 0;
    unsigned int count = 0;
    HvTokenTable::Iterator entries(*table);
    while (entries.next())
        ++count;
    return count;
}

void HvSocketFactory::sCloseAll()
{
    Velmora::TraceScope trace(logger(), "HvSocketFactory::sCloseAll", kSource, __LINE__);
    logger().log(Velmora::Logger::DEBUG, "Hv SIP stack : Closing all sockets", kSource, kCloseAllLine);
    // Released after the section is left: destroying a socket notifies its
    // observer, which must not run under the library-wide lock.
    std::vector<HvHandle<HvObject>> closed;
    {
        GlobalSection section;
        // Taken away while it is walked, so that closing a socket cannot
        // change it.
        HvTokenTable* table = sm_pHandleTable.exchange(nullptr);
        if (table) {
            HvTokenTable::Iterator entries(*table);
            while (entries.next()) {
                HvHandle<HvObject> value = entries.getValue();
                if (HvSocketImpl* socket = dynamic_cast<HvSocketImpl*>(value.get())) {
                    socket->sendLocalUnblockMessage();
                    // Wakes also the threads waiting in accept() or in a
                    // stream receive, which the datagram does not reach.
                    socket->close();
                }
                closed.push_back(value);
            }
            table->clear();
            sm_pHandleTable.store(table);
        }
    }
}

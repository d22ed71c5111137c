// Diagnostic output stream: forwards to a target stream, or to the process's
// standard error when it has none, and decides through named debug modes and
// a level threshold whether a piece of debug output is written at all.
#ifndef HVUTIL_HVERRORSTREAM_H
#define HVUTIL_HVERRORSTREAM_H

#include <HvUtil/HvKeyTable.h>
#include <HvUtil/HvOutputStream.h>
#include <HvUtil/HvString.h>

class HvErrorStream : public HvOutputStream {
public:
    // Levels at or above this are suppressed after construction.
    static const unsigned int kDefaultLevel = 3;

    // `target` is not owned; null writes to standard error.
    explicit HvErrorStream(HvOutputStream* target = nullptr);
    ~HvErrorStream() override;

    void write(int byte) override;
    void write(const void* buffer, unsigned int length, unsigned int offset) override;
    using HvOutputStream::write;
    // Writes the text and its terminating NUL: the NUL is part of this
    // stream's established output.
    virtual void write(const char* text);
    void flush() override;

    void setDebugMode(const HvString& mode);
    void clearDebugMode(const HvString& mode);
    // False when level is at or above the threshold, else whether the mode is set.
    bool checkDebugMode(const HvString& mode, unsigned int level) const;
    // The target (or this stream) when checkDebugMode is true, else the sink.
    HvOutputStream* getDebugStream(const HvString& mode, unsigned int level);
    // The sink when level is at or above the threshold, else the target (or this stream).
    HvOutputStream* getDebugStream(unsigned int level);

    unsigned int getLevel() const { return m_level; }
    void setLevel(unsigned int level) { m_level = level; }

    // The process default, made on first use without a target. Not guarded
    // against two first callers at once.
    static HvErrorStream* sGetDefault();
    // Installs a default; returns the previous one, which the caller now owns.
    static HvErrorStream* sSetDefault(HvErrorStream* stream);

private:
    HvOutputStream* destination() { return m_pTarget ? m_pTarget : this; }

    unsigned int m_level;
    HvHandle<HvKeyTable> m_modes;
    HvOutputStream* m_pTarget;
};

#endif

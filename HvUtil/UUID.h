// Time-based (version 1) UUID texts. Each thread keeps its own generator
// state; the node is random (renewed on every call), not a hardware address.
#ifndef HVUTIL_UUID_H
#define HVUTIL_UUID_H

class UUID {
public:
    // How many UUIDs one reading of the clock may give; after that the
    // generator waits for the clock to move.
    static constexpr unsigned int UUIDS_PER_TICK = 1024;

    // Writes 36 characters and a NUL into text (at least 37 bytes): groups of
    // 8, 4, 4, 4 and 12 lower-case hexadecimal digits joined by '-', version
    // 1, variant bits 10. Does nothing for null. Never throws.
    static void uuid_create_string(char* text);
};

#endif

#pragma once

#include <cstddef>
#include <string>

// The telephone's property store: the file named by QUILLSPEAK_PROPERTIES, asked for at each read,
// by default /etc/quillspeak/properties.conf. Read only; any thread; a change is seen at the next
// read. A read costs a look at the file's status, after a change a parse of the file, which is a
// regular one of at most 256 KB; nothing else is opened, so no read hangs on a pipe or a device.
//
// Each returns 0 and fills `value`, or returns non-zero and leaves `value` alone: no store, no such
// key, a value of the wrong kind, or a string that does not fit into `size` bytes with its NUL.

int getBooleanProperty(const char* key, bool* value);
int getIntegerProperty(const char* key, int* value);
int getStringProperty(const char* key, char* value, std::size_t size);

namespace platform {

/// Where the store's file is, or would be. Any thread.
std::string propertyFile();

}  // namespace platform

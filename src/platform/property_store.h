#pragma once

#include <cstddef>

// The telephone's property store. Read only; any thread; a change is seen at the next read.
// Each returns 0 and fills `value`, or returns non-zero and leaves `value` alone: no store, no such
// key, a value of the wrong kind, or a string that does not fit into `size` bytes with its NUL.

int getBooleanProperty(const char* key, bool* value);
int getIntegerProperty(const char* key, int* value);
int getStringProperty(const char* key, char* value, std::size_t size);

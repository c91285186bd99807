#pragma once

namespace platform {

/// Makes the C library keep one heap for all threads and give large blocks back at once: one
/// utterance takes 50 KB a character of it. The heap's lock lends no priority, but nobody holds it
/// for longer than a few blocks take. Before the first thread starts.
void keepHeapSmall();

/// Gives back what is free anywhere in the heap. Takes about a millisecond, in which nobody else
/// can allocate, so it is for when nothing sounds. Any thread.
void trimHeap();

}  // namespace platform

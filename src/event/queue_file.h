// The queue's persistence file: events still queued at stop are saved and reloaded at start.
//
// Layout: the magic "sslz", then records of a 4-byte big-endian length, a 1-byte sum of the
// event bytes modulo 256 and the event bytes, oldest first, to the end of the file. Saving writes
// a ".tmp" file and renames it over the old one; loading consumes (removes) the file.
// Both do nothing when the queue's recovery option is off. Failures throw QueueError.
// The functions keep no state; the caller makes sure no other thread saves or loads the same
// file at the same time (the queue itself is thread-safe).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "base/error.h"
#include "event/event_queue.h"

namespace vantrelo::event::queue {

inline constexpr char kQueueFileMagic[4] = {'s', 's', 'l', 'z'};
inline constexpr size_t kRecordHeadBytes = 5;  // 4-byte length and 1-byte checksum

// Drains the queue into the file. A zero-length event ends the save; what stands behind it stays
// in the queue.
void save(EventQueue& queue);
// Pushes every event of the file into the queue, then removes the file. A failure leaves the
// events pushed so far in the queue and the file in place.
void load(EventQueue& queue);

// The sum of the bytes modulo 256, as stored in each record.
uint8_t checksum(const uint8_t* data, size_t length);

}  // namespace vantrelo::event::queue

namespace vantrelo::file {

NS_DEFINE_ERROR(FileError);

// True when the path exists, false when it does not; any other stat failure throws FileError.
bool fileExists(const std::string& path);
uint64_t fileSize(const std::string& path);

}  // namespace vantrelo::file

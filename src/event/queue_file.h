// The queue's persistence file: events still queued at stop are saved and reloaded at start.
//
// Layout: the magic "sslz", then records of a 4-byte big-endian length, a 1-byte sum of the
// event bytes modulo 256 and the event bytes, oldest first, to the end of the file. Saving writes
// a ".tmp" file and renames it over the old one; loading consumes (removes) the file.
// Both do nothing when the queue's recovery option is off. Failures throw QueueError.
#pragma once

#include <cstdint>
#include <string>

#include "encoding/error.h"
#include "event/event_queue.h"

namespace ns::event::queue {

void save(EventQueue& queue);
void load(EventQueue& queue);

}  // namespace ns::event::queue

namespace ns::file {

NS_DEFINE_ERROR(FileError);

// True when the path exists, false when it does not; any other stat failure throws FileError.
bool fileExists(const std::string& path);
uint64_t fileSize(const std::string& path);

}  // namespace ns::file

// clang-format off
#include <windows.h>
#include <evntrace.h>
#include <evntcons.h>
#include <tdh.h>
// clang-format on

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "base/error.h"
#include "etw/etw_reader.h"
#include "etw/windows_version.h"

namespace vantrelo::etw {

namespace {

// Microsoft-Windows-DNSServer: EB79061A-A566-4698-9119-3ED2807060E7.
constexpr GUID kProviderGuid = {
    0xEB79061A, 0xA566, 0x4698, {0x91, 0x19, 0x3E, 0xD2, 0x80, 0x70, 0x60, 0xE7}};
// The session's own GUID: 01A1C6BA-3C9C-4C71-B8BD-544941E1A09F.
constexpr GUID kSessionGuid = {
    0x01A1C6BA, 0x3C9C, 0x4C71, {0xB8, 0xBD, 0x54, 0x49, 0x41, 0xE1, 0xA0, 0x9F}};

// The fixed part of EVENT_TRACE_PROPERTIES; the session name is placed right behind it.
constexpr ULONG kPropertiesSize = 120;
static_assert(sizeof(EVENT_TRACE_PROPERTIES) == kPropertiesSize,
              "EVENT_TRACE_PROPERTIES must be 120 bytes on x64");
static_assert(offsetof(EVENT_TRACE_PROPERTIES, LoggerNameOffset) == 116);

constexpr ULONG kWnodeFlagTracedGuid = 0x00020000;  // WNODE_FLAG_TRACED_GUID
constexpr ULONG kWnodeClientContextQpc = 1;         // time stamps from the performance counter
constexpr ULONG kRealTimeMode = 0x00000100;         // EVENT_TRACE_REAL_TIME_MODE
constexpr ULONG kProcessTraceMode = 0x10000100;     // EVENT_RECORD | REAL_TIME
constexpr ULONG kControlEnableProvider = 1;         // EVENT_CONTROL_CODE_ENABLE_PROVIDER
constexpr ULONG kControlQuery = 0;                  // EVENT_TRACE_CONTROL_QUERY
constexpr ULONG kEnableParametersVersion2 = 2;      // ENABLE_TRACE_PARAMETERS_VERSION_2
constexpr ULONG kFilterTypeEventId = 0x80000200;    // EVENT_FILTER_TYPE_EVENT_ID
constexpr ULONG kErrorAlreadyExists = 183;          // ERROR_ALREADY_EXISTS
constexpr ULONG kErrorInsufficientBuffer = 122;     // ERROR_INSUFFICIENT_BUFFER
constexpr ULONG kErrorCancelled = 1223;             // ERROR_CANCELLED
static_assert(kProcessTraceMode ==
              (PROCESS_TRACE_MODE_EVENT_RECORD | PROCESS_TRACE_MODE_REAL_TIME));
static_assert(kRealTimeMode == EVENT_TRACE_REAL_TIME_MODE);
static_assert(kWnodeFlagTracedGuid == WNODE_FLAG_TRACED_GUID);

// EVENT_FILTER_EVENT_ID (evntprov.h of the Windows SDK; not in every header set): a 4-byte
// header followed by Count event ids.
struct EventFilterEventId {
  BOOLEAN FilterIn;
  UCHAR Reserved;
  USHORT Count;
  USHORT Events[1];
};
constexpr size_t kFilterHeaderSize = offsetof(EventFilterEventId, Events);
static_assert(kFilterHeaderSize == 4);

// A query needs room for the session and log file names the system copies back.
constexpr ULONG kQueryNameRoom = 1024;

// Zero-filled EVENT_TRACE_PROPERTIES block of `size` bytes, 8-byte aligned.
struct PropertiesBlock {
  explicit PropertiesBlock(size_t size) : words(new uint64_t[(size + 7) / 8]()) {}
  EVENT_TRACE_PROPERTIES* get() { return reinterpret_cast<EVENT_TRACE_PROPERTIES*>(words.get()); }
  std::unique_ptr<uint64_t[]> words;
};

[[noreturn]] void fail(const char* what, ULONG code) {
  throw EtwError(std::string(what) + " failed: " + error::systemErrorText(code));
}

// The event seen through its record and its TDH event information.
class WindowsEventView : public EventRecordView {
 public:
  WindowsEventView(const EVENT_RECORD& record, const TRACE_EVENT_INFO& info)
      : record_(record), info_(info) {}

  uint16_t eventId() const override { return record_.EventHeader.EventDescriptor.Id; }
  int64_t timeStamp() const override { return record_.EventHeader.TimeStamp.QuadPart; }
  uint32_t propertyCount() const override { return info_.TopLevelPropertyCount; }
  PropertyInfo property(uint32_t index) const override {
    const EVENT_PROPERTY_INFO& property = info_.EventPropertyInfoArray[index];
    return PropertyInfo{property.nonStructType.InType, property.length};
  }
  const uint8_t* userData() const override { return static_cast<const uint8_t*>(record_.UserData); }
  uint32_t userDataLength() const override { return record_.UserDataLength; }

 private:
  const EVENT_RECORD& record_;
  const TRACE_EVENT_INFO& info_;
};

}  // namespace

// The system's callbacks, with access to the reader they were given as context.
struct EtwCallbacks {
  static void WINAPI onEvent(PEVENT_RECORD record) {
    auto* reader = static_cast<EtwReader*>(record->UserContext);
    // Skip the event information lookup for what would be ignored anyway.
    if (!reader->decoder_.wants(record->EventHeader.EventDescriptor.Id)) return;
    const TRACE_EVENT_INFO* info = eventInformation(*reader, record);
    if (info != nullptr) reader->dispatch(WindowsEventView(*record, *info));
  }

  // Fills the reader's buffer with the event's TRACE_EVENT_INFO, growing it when the system
  // asks for more; the buffer is kept, so it soon has the size of the largest event. Reports a
  // failure and gives nullptr when the system has no information for the event.
  static const TRACE_EVENT_INFO* eventInformation(EtwReader& reader, PEVENT_RECORD record) {
    std::vector<uint64_t>& buffer = reader.eventInfo_;
    ULONG size = static_cast<ULONG>(buffer.size() * sizeof(uint64_t));
    auto* info = reinterpret_cast<TRACE_EVENT_INFO*>(buffer.data());
    ULONG status = TdhGetEventInformation(record, 0, nullptr, info, &size);
    if (status == kErrorInsufficientBuffer) {
      try {
        buffer.resize((size + sizeof(uint64_t) - 1) / sizeof(uint64_t));
      } catch (const std::exception&) {
        reader.reportFailure("TdhGetEventInformation() failed: out of memory");
        return nullptr;
      }
      size = static_cast<ULONG>(buffer.size() * sizeof(uint64_t));
      info = reinterpret_cast<TRACE_EVENT_INFO*>(buffer.data());
      status = TdhGetEventInformation(record, 0, nullptr, info, &size);
    }
    if (status != ERROR_SUCCESS) {
      std::string text = "TdhGetEventInformation() failed: " + error::systemErrorText(status);
      reader.reportFailure(text.c_str());
      return nullptr;
    }
    return info;
  }
};

namespace {

// Enables the provider in a session this run has just started.
void enableProvider(TRACEHANDLE session, const EtwSettings& settings) {
  size_t filterSize = kFilterHeaderSize + sizeof(USHORT) * settings.eventIds.size();
  std::unique_ptr<void, decltype(&std::free)> filterBlock(std::calloc(1, filterSize), &std::free);
  if (filterBlock == nullptr) {
    throw EtwError("malloc(EVENT_FILTER_EVENT_ID) failed: " +
                   error::cErrorText(error::lastCError()));
  }
  auto* filter = static_cast<EventFilterEventId*>(filterBlock.get());
  filter->FilterIn = TRUE;
  filter->Reserved = 0;
  filter->Count = static_cast<USHORT>(settings.eventIds.size());
  // Written through memcpy: Events is declared with one element but holds Count of them.
  if (!settings.eventIds.empty()) {
    std::memcpy(static_cast<char*>(filterBlock.get()) + kFilterHeaderSize, settings.eventIds.data(),
                sizeof(USHORT) * settings.eventIds.size());
  }

  EVENT_FILTER_DESCRIPTOR descriptor{};
  descriptor.Ptr = reinterpret_cast<ULONGLONG>(filterBlock.get());
  descriptor.Size = static_cast<ULONG>(filterSize);
  descriptor.Type = kFilterTypeEventId;

  ENABLE_TRACE_PARAMETERS parameters{};
  parameters.Version = kEnableParametersVersion2;
  parameters.EnableProperty = 0;
  parameters.ControlFlags = 0;
  parameters.SourceId = GUID{};
  parameters.EnableFilterDesc = &descriptor;
  parameters.FilterDescCount = 1;

  // Without the filter every event of the level and keywords arrives.
  ULONG status = EnableTraceEx2(session, &kProviderGuid, kControlEnableProvider, settings.level,
                                settings.matchAnyKeyword, settings.matchAllKeyword, 0,
                                settings.filter ? &parameters : nullptr);
  if (status != ERROR_SUCCESS) fail("EnableTraceEx2()", status);
}

}  // namespace

void EtwReader::run(EventHandler handler, void* context) {
  decoder_.setHandler(handler, context);
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (stopRequested_) return;
  }

  const size_t nameSize = sizeof kSessionName;  // with its terminator
  PropertiesBlock block(kPropertiesSize + nameSize);
  EVENT_TRACE_PROPERTIES* properties = block.get();
  properties->Wnode.BufferSize = static_cast<ULONG>(kPropertiesSize + nameSize);
  properties->Wnode.Guid = kSessionGuid;
  properties->Wnode.ClientContext = kWnodeClientContextQpc;
  properties->Wnode.Flags = kWnodeFlagTracedGuid;
  properties->BufferSize = settings_.bufferSize;
  properties->MinimumBuffers = settings_.minimumBuffers;
  properties->MaximumBuffers = settings_.maximumBuffers;
  properties->LogFileMode = kRealTimeMode;
  properties->FlushTimer = settings_.flushTimer;
  properties->EnableFlags = 0;
  properties->LogFileNameOffset = 0;
  properties->LoggerNameOffset = kPropertiesSize;
  std::memcpy(reinterpret_cast<char*>(properties) + kPropertiesSize, kSessionName, nameSize);

  TRACEHANDLE session = 0;
  ULONG status = StartTraceA(&session, kSessionName, properties);
  if (status == ERROR_SUCCESS) {
    sessionHandle_ = session;
    enableProvider(session, settings_);
  } else if (status != kErrorAlreadyExists) {
    // 183: a session left by an earlier run; it keeps the provider enabled as it was.
    fail("StartTrace()", status);
  }

  queryStatistics();

  EVENT_TRACE_LOGFILEA logFile{};
  logFile.LoggerName = const_cast<char*>(kSessionName);
  logFile.ProcessTraceMode = kProcessTraceMode;
  logFile.EventRecordCallback = &EtwCallbacks::onEvent;
  logFile.Context = this;
  TRACEHANDLE consumer = OpenTraceA(&logFile);
  if (consumer == INVALID_PROCESSTRACE_HANDLE) fail("OpenTrace()", GetLastError());

  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (stopRequested_) {
      CloseTrace(consumer);
      return;
    }
    consumerHandle_ = consumer;
  }

  status = ProcessTrace(&consumer, 1, nullptr, nullptr);

  bool stopped = false;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopped = stopRequested_;
    // stop() has closed the handle already; closing it twice could hit a reused handle value.
    if (!stopped) CloseTrace(consumer);
    consumerHandle_ = kNoHandle;
  }
  // Closing the handle while events are in flight may end processing with ERROR_CANCELLED;
  // after a stop request that is the normal end.
  if (status != ERROR_SUCCESS && !(stopped && status == kErrorCancelled)) {
    fail("ProcessTrace()", status);
  }
}

void EtwReader::stop() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (stopRequested_) return;
  stopRequested_ = true;
  if (consumerHandle_ != kNoHandle) CloseTrace(consumerHandle_);
}

void EtwReader::queryStatistics() {
  // Room behind the fixed part for the session and log file names that the query returns.
  const ULONG size = kPropertiesSize + 2 * kQueryNameRoom;
  PropertiesBlock block(size);
  EVENT_TRACE_PROPERTIES* properties = block.get();
  properties->Wnode.BufferSize = size;
  properties->Wnode.ClientContext = kWnodeClientContextQpc;
  properties->Wnode.Flags = kWnodeFlagTracedGuid;
  properties->LoggerNameOffset = kPropertiesSize;
  properties->LogFileNameOffset = kPropertiesSize + kQueryNameRoom;
  ULONG status = ControlTraceA(0, kSessionName, properties, kControlQuery);
  if (status != ERROR_SUCCESS) fail("ControlTrace()", status);

  EtwStatistics statistics;
  statistics.numberOfBuffers = properties->NumberOfBuffers;
  statistics.freeBuffers = properties->FreeBuffers;
  statistics.eventsLost = properties->EventsLost;
  statistics.buffersWritten = properties->BuffersWritten;
  statistics.logBuffersLost = properties->LogBuffersLost;
  statistics.realTimeBuffersLost = properties->RealTimeBuffersLost;
  storeStatistics(statistics);
}

}  // namespace vantrelo::etw

// clang-format off
#include <windows.h>
#include <evntrace.h>
#include <evntcons.h>
#include <tdh.h>
// clang-format on

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/error.h"
#include "etw/trace_session.h"
#include "etw/windows_version.h"

namespace vantrelo::etw {

namespace {

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
constexpr ULONG kProcessTraceMode = 0x10000100;     // EVENT_RECORD | REAL_TIME
constexpr ULONG kControlEnableProvider = 1;         // EVENT_CONTROL_CODE_ENABLE_PROVIDER
constexpr ULONG kControlQuery = 0;                  // EVENT_TRACE_CONTROL_QUERY
constexpr ULONG kControlStop = 1;                   // EVENT_TRACE_CONTROL_STOP
constexpr ULONG kEnableParametersVersion2 = 2;      // ENABLE_TRACE_PARAMETERS_VERSION_2
constexpr ULONG kFilterTypeEventId = 0x80000200;    // EVENT_FILTER_TYPE_EVENT_ID
constexpr ULONG kErrorInsufficientBuffer = 122;     // ERROR_INSUFFICIENT_BUFFER
static_assert(kProcessTraceMode ==
              (PROCESS_TRACE_MODE_EVENT_RECORD | PROCESS_TRACE_MODE_REAL_TIME));
static_assert(kRealTimeMode == EVENT_TRACE_REAL_TIME_MODE);
static_assert(kIndependentSessionMode == EVENT_TRACE_INDEPENDENT_SESSION_MODE);
static_assert(kControlStop == EVENT_TRACE_CONTROL_STOP);
static_assert(kWnodeFlagTracedGuid == WNODE_FLAG_TRACED_GUID);
static_assert(kStatusAlreadyExists == ERROR_ALREADY_EXISTS);
static_assert(kStatusInstanceNotFound == ERROR_WMI_INSTANCE_NOT_FOUND);

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

// A query or a stop needs room for the session and log file names the system copies back.
constexpr ULONG kNameRoom = 1024;

// Zero-filled EVENT_TRACE_PROPERTIES block of `size` bytes, 8-byte aligned.
struct PropertiesBlock {
  explicit PropertiesBlock(size_t size) : words(new uint64_t[(size + 7) / 8]()) {}
  EVENT_TRACE_PROPERTIES* get() { return reinterpret_cast<EVENT_TRACE_PROPERTIES*>(words.get()); }
  std::unique_ptr<uint64_t[]> words;
};

// A block for a control call on the session by name, with room for the names it returns.
struct ControlBlock : PropertiesBlock {
  ControlBlock() : PropertiesBlock(kPropertiesSize + 2 * kNameRoom) {
    EVENT_TRACE_PROPERTIES* properties = get();
    properties->Wnode.BufferSize = kPropertiesSize + 2 * kNameRoom;
    properties->Wnode.ClientContext = kWnodeClientContextQpc;
    properties->Wnode.Flags = kWnodeFlagTracedGuid;
    properties->LoggerNameOffset = kPropertiesSize;
    properties->LogFileNameOffset = kPropertiesSize + kNameRoom;
  }
};

// What a consumer's callback needs: where the events go, and the buffer the event information
// is read into, kept so that it soon has the size of the largest event.
struct ConsumerContext {
  EventSink* sink = nullptr;
  std::vector<uint64_t> infoBuffer;
};

// The event information of one event, in the consumer's buffer.
class WindowsEventInformation : public EventInformation {
 public:
  explicit WindowsEventInformation(const TRACE_EVENT_INFO& info) : info_(info) {}

  uint32_t propertyCount() const override { return info_.TopLevelPropertyCount; }
  PropertyInfo property(uint32_t index) const override {
    const EVENT_PROPERTY_INFO& property = info_.EventPropertyInfoArray[index];
    return PropertyInfo{property.nonStructType.InType, property.length};
  }
  std::u16string_view propertyName(uint32_t index) const override {
    const ULONG offset = info_.EventPropertyInfoArray[index].NameOffset;
    if (offset == 0) return {};
    // WCHAR is a 16-bit unit here, as char16_t is.
    static_assert(sizeof(WCHAR) == sizeof(char16_t));
    return std::u16string_view(
        reinterpret_cast<const char16_t*>(reinterpret_cast<const BYTE*>(&info_) + offset));
  }

 private:
  const TRACE_EVENT_INFO& info_;
};

// The event seen through its record; its information is looked up only when asked for.
class WindowsEventView : public EventRecordView {
 public:
  WindowsEventView(EVENT_RECORD& record, ConsumerContext& context)
      : record_(record), context_(context) {}

  Guid providerId() const override {
    const GUID& guid = record_.EventHeader.ProviderId;
    Guid id{guid.Data1, guid.Data2, guid.Data3, {}};
    std::copy(std::begin(guid.Data4), std::end(guid.Data4), id.data4);
    return id;
  }
  uint16_t eventId() const override { return record_.EventHeader.EventDescriptor.Id; }
  uint8_t eventVersion() const override { return record_.EventHeader.EventDescriptor.Version; }
  int64_t timeStamp() const override { return record_.EventHeader.TimeStamp.QuadPart; }
  const uint8_t* userData() const override { return static_cast<const uint8_t*>(record_.UserData); }
  uint32_t userDataLength() const override { return record_.UserDataLength; }

  const EventInformation& information() const override {
    std::vector<uint64_t>& buffer = context_.infoBuffer;
    ULONG size = static_cast<ULONG>(buffer.size() * sizeof(uint64_t));
    auto* info = reinterpret_cast<TRACE_EVENT_INFO*>(buffer.data());
    ULONG status = TdhGetEventInformation(&record_, 0, nullptr, info, &size);
    if (status == kErrorInsufficientBuffer) {
      buffer.resize((size + sizeof(uint64_t) - 1) / sizeof(uint64_t));
      size = static_cast<ULONG>(buffer.size() * sizeof(uint64_t));
      info = reinterpret_cast<TRACE_EVENT_INFO*>(buffer.data());
      status = TdhGetEventInformation(&record_, 0, nullptr, info, &size);
    }
    if (status != ERROR_SUCCESS) {
      throw EtwError("TdhGetEventInformation() failed: " + error::systemErrorText(status));
    }
    information_.emplace(*info);
    return *information_;
  }

 private:
  EVENT_RECORD& record_;
  ConsumerContext& context_;
  mutable std::optional<WindowsEventInformation> information_;
};

void WINAPI onEvent(PEVENT_RECORD record) {
  // Nothing may leave this function: the system's event processing cannot carry exceptions.
  try {
    auto* context = static_cast<ConsumerContext*>(record->UserContext);
    context->sink->onEvent(WindowsEventView(*record, *context));
  } catch (...) {
  }
}

// Called after the events of each delivered buffer; TRUE keeps the processing going.
ULONG WINAPI onBuffer(PEVENT_TRACE_LOGFILEA logFile) {
  static_cast<ConsumerContext*>(logFile->Context)->sink->onBufferDelivered();
  return TRUE;
}

class SystemTraceSessions : public TraceSessionApi {
 public:
  uint32_t startSession(const EtwSettings& settings, uint32_t logFileMode) override {
    const size_t nameSize = sizeof kSessionName;  // with its terminator
    PropertiesBlock block(kPropertiesSize + nameSize);
    EVENT_TRACE_PROPERTIES* properties = block.get();
    properties->Wnode.BufferSize = static_cast<ULONG>(kPropertiesSize + nameSize);
    properties->Wnode.Guid = kSessionGuid;
    properties->Wnode.ClientContext = kWnodeClientContextQpc;
    properties->Wnode.Flags = kWnodeFlagTracedGuid;
    properties->BufferSize = settings.bufferSize;
    properties->MinimumBuffers = settings.minimumBuffers;
    properties->MaximumBuffers = settings.maximumBuffers;
    properties->LogFileMode = logFileMode;
    properties->FlushTimer = settings.flushTimer;
    properties->EnableFlags = 0;
    properties->LogFileNameOffset = 0;
    properties->LoggerNameOffset = kPropertiesSize;
    std::memcpy(reinterpret_cast<char*>(properties) + kPropertiesSize, kSessionName, nameSize);
    TRACEHANDLE session = 0;
    const ULONG status = StartTraceA(&session, kSessionName, properties);
    if (status == ERROR_SUCCESS) session_ = session;
    return status;
  }

  uint32_t stopSession() override {
    ControlBlock block;
    return ControlTraceA(0, kSessionName, block.get(), kControlStop);
  }

  uint32_t enableProvider(const EtwSettings& settings) override {
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
      std::memcpy(static_cast<char*>(filterBlock.get()) + kFilterHeaderSize,
                  settings.eventIds.data(), sizeof(USHORT) * settings.eventIds.size());
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
    const GUID provider = toGuid(kDnsServerProvider);
    return EnableTraceEx2(session_, &provider, kControlEnableProvider, settings.level,
                          settings.matchAnyKeyword, settings.matchAllKeyword, 0,
                          settings.filter ? &parameters : nullptr);
  }

  uint32_t querySession(EtwStatistics& statistics) override {
    ControlBlock block;
    EVENT_TRACE_PROPERTIES* properties = block.get();
    const ULONG status = ControlTraceA(0, kSessionName, properties, kControlQuery);
    if (status != ERROR_SUCCESS) return status;
    statistics.numberOfBuffers = properties->NumberOfBuffers;
    statistics.freeBuffers = properties->FreeBuffers;
    statistics.eventsLost = properties->EventsLost;
    statistics.buffersWritten = properties->BuffersWritten;
    statistics.logBuffersLost = properties->LogBuffersLost;
    statistics.realTimeBuffersLost = properties->RealTimeBuffersLost;
    return status;
  }

  uint32_t openConsumer(EventSink& sink, Handle& handle) override {
    consumer_.sink = &sink;
    EVENT_TRACE_LOGFILEA logFile{};
    logFile.LoggerName = const_cast<char*>(kSessionName);
    logFile.ProcessTraceMode = kProcessTraceMode;
    logFile.EventRecordCallback = &onEvent;
    logFile.BufferCallback = &onBuffer;
    logFile.Context = &consumer_;
    const TRACEHANDLE consumer = OpenTraceA(&logFile);
    if (consumer == INVALID_PROCESSTRACE_HANDLE) return GetLastError();
    handle = consumer;
    return ERROR_SUCCESS;
  }

  uint32_t processEvents(Handle handle) override {
    TRACEHANDLE consumer = handle;
    return ProcessTrace(&consumer, 1, nullptr, nullptr);
  }

  void closeConsumer(Handle handle) override { CloseTrace(handle); }

 private:
  static GUID toGuid(const Guid& id) {
    GUID guid{id.data1, id.data2, id.data3, {}};
    std::copy(std::begin(id.data4), std::end(id.data4), guid.Data4);
    return guid;
  }

  TRACEHANDLE session_ = 0;  // of the session started last
  ConsumerContext consumer_;
};

}  // namespace

std::unique_ptr<TraceSessionApi> makeSystemTraceSessionApi() {
  return std::make_unique<SystemTraceSessions>();
}

}  // namespace vantrelo::etw

// Steady-state decoding of DNS Server provider events: a client response (257) as Windows
// Server 2022 raises it, read by position, and the same traffic in a layout that moved, read
// through the positions found by name. After the first event of a kind neither looks at the
// event information again.
#include <benchmark/benchmark.h>

#include <string>

#include "base/log.h"
#include "etw/event_decoder.h"
#include "etw/windows_version.h"
#include "event_builder.h"

namespace {

using vantrelo::etw::EtwSettings;
using vantrelo::etw::EventDecoder;
using vantrelo::etw::testing::SyntheticEvent;

// A 120-byte DNS answer.
const std::string kMessage(120, '\x5a');

// The one warning of a moved layout stays out of the timings' output.
class NoLog : public vantrelo::log::SystemLog {
 public:
  bool write(vantrelo::log::Level, const std::string&) override { return true; }
};

void decode(benchmark::State& state, uint32_t version, const SyntheticEvent& event) {
  NoLog quiet;
  vantrelo::log::setSystemLog(&quiet);
  EtwSettings settings;
  settings.windowsVersion = version;
  settings.identityFromEvent = false;
  settings.resolverResponse = true;
  EventDecoder decoder(settings, "");
  uint64_t decoded = 0;
  decoder.setHandler([](vantrelo::encoding::dnstap::DnstapMessage&,
                        void* count) { ++*static_cast<uint64_t*>(count); },
                     &decoded);
  for (auto _ : state) decoder.handleEvent(event);
  if (decoded != static_cast<uint64_t>(state.iterations()))
    state.SkipWithError("an event did not decode");
  state.SetItemsProcessed(state.iterations());
  vantrelo::log::setSystemLog(nullptr);
}

void BM_DecodeByPosition(benchmark::State& state) {
  decode(
      state, vantrelo::etw::kWindows2022,
      vantrelo::etw::testing::buildEvent(257, vantrelo::etw::kWindows2022, {.message = kMessage}));
}
BENCHMARK(BM_DecodeByPosition);

void BM_DecodeByName(benchmark::State& state) {
  // Windows Server 2016's resolver response as documented: two scope strings after Flags.
  decode(state, vantrelo::etw::kWindows2016,
         vantrelo::etw::testing::buildEventFrom(
             261,
             "TCP:u8 Source:A InterfaceIP:A AA:u8 AD:u8 QNAME:A QTYPE:u32 XID:u32 Port:u32 "
             "Flags:u32 ServerScope:U CacheScope:U BufferSize:u32 PacketData:bin "
             "AdditionalInfo:U GUID:U",
             {.message = kMessage}));
}
BENCHMARK(BM_DecodeByName);

}  // namespace

BENCHMARK_MAIN();

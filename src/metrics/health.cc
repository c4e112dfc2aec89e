#include "metrics/health.h"

#include "format/text_writer.h"

namespace vantrelo::metrics {

bool HealthTracker::update(const std::vector<OutputState>& outputs, Clock::time_point now,
                           std::string* body) {
  std::lock_guard<std::mutex> lock(mutex_);
  std::map<uint32_t, Clock::time_point> seen;
  std::string members;
  std::string down;
  for (const OutputState& output : outputs) {
    const bool up = output.toStdout || output.connected;
    uint64_t downSeconds = 0;
    if (!up) {
      auto found = downSince_.find(output.id);
      const Clock::time_point since = found != downSince_.end() ? found->second : now;
      seen.emplace(output.id, since);
      downSeconds = static_cast<uint64_t>(
          std::chrono::duration_cast<std::chrono::seconds>(now - since).count());
      if (now - since > kReconnectPause) {
        if (!down.empty()) down.push_back(',');
        format::appendDecimal(down, output.id);
      }
    }
    if (body == nullptr) continue;
    if (!members.empty()) members.push_back(',');
    members.append("{\"id\":");
    format::appendDecimal(members, output.id);
    members.append(",\"target\":");
    format::appendJsonString(members, output.target);
    members.append(",\"state\":\"");
    members.append(output.toStdout ? "stdout" : up ? "connected" : "not-connected");
    members.append("\",\"downSeconds\":");
    format::appendDecimal(members, downSeconds);
    members.push_back('}');
  }
  downSince_.swap(seen);
  const bool healthy = down.empty();
  if (body != nullptr) {
    body->assign(healthy ? "{\"status\":\"ok\"" : "{\"status\":\"down\"");
    body->append(",\"down\":[" + down + "],\"forwarders\":[" + members + "]}\n");
  }
  return healthy;
}

}  // namespace vantrelo::metrics

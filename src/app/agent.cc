#include "app/agent.h"

#include <exception>
#include <memory>
#include <vector>

#include "app/config.h"
#include "app/platform.h"
#include "app/process_state.h"
#include "app/settings_reader.h"
#include "base/log.h"
#include "event/queue_file.h"
#include "filter/filter_config.h"

namespace vantrelo::app {

namespace {

using WorkerList = std::vector<std::unique_ptr<Worker>>;

// Everything one run owns. Members are destroyed in reverse order: the background logger, the
// listeners, the forwarders, the queue, then the settings the workers were built from.
struct Run {
  config::AgentConfig config;
  format::MessageSettings messageSettings;
  event::queue::QueueOptions queueOptions;
  std::vector<worker::forwarder::ForwarderSettings> forwarderSettings;
  std::vector<worker::listener::ListenerSettings> listenerSettings;
  format::MetricsSettings metricsSettings;
  metrics::EndpointSettings endpointSettings;
  std::unique_ptr<event::queue::EventQueue> queue;
  WorkerList forwarders;
  WorkerList listeners;
  std::unique_ptr<Worker> backgroundLogger;
  std::unique_ptr<Worker> metricsEndpoint;  // reads the workers above, so it goes first
};

void readSettings(Run& run) {
  config::readMessageSettings(run.config, run.messageSettings);
  config::readQueueSettings(run.config, run.queueOptions);
  config::readForwarderSettings(run.config, standardOutputMode(), run.forwarderSettings);
  config::readListenerSettings(run.config, run.listenerSettings);
  // Agent-wide, so every listener shares them; read before any worker exists, so a bad filter
  // key stops the run before anything starts.
  const auto filters =
      filter::readFilterSettings([&run](const char* key) { return run.config.lookupAll(key); });
  for (auto& listener : run.listenerSettings) listener.filter = filters;
  config::readMetricsSettings(run.config, run.metricsSettings);
  config::readEndpointSettings(run.config, run.endpointSettings);
}

void createWorkers(Run& run, WorkerFactory& factory) {
  uint32_t id = 0;
  for (const auto& settings : run.forwarderSettings) {
    if (auto worker = factory.createForwarder(id++, settings, *run.queue, run.messageSettings)) {
      run.forwarders.push_back(std::move(worker));
    }
  }
  id = 0;
  for (const auto& settings : run.listenerSettings) {
    if (auto worker = factory.createListener(id++, settings, *run.queue)) {
      run.listeners.push_back(std::move(worker));
    }
  }
  if (run.endpointSettings.enabled) {
    run.metricsEndpoint = factory.createMetricsEndpoint(run.endpointSettings, *run.queue);
  }
  run.backgroundLogger = factory.createBackgroundLogger(run.metricsSettings, *run.queue);
}

void startWorkers(Run& run) {
  for (auto& worker : run.forwarders) worker->start();
  for (auto& worker : run.listeners) worker->start();
  if (run.backgroundLogger) run.backgroundLogger->start();
  if (run.metricsEndpoint) run.metricsEndpoint->start();
}

// Sources first, so that nothing new enters the queue while the forwarders drain and stop.
void stopWorkers(Run& run) {
  for (auto& worker : run.listeners) worker->requestStop();
  for (auto& worker : run.forwarders) worker->requestStop();
  // A forwarder waiting for events sleeps in the queue's wait; wake it to see its flag now.
  run.queue->wakeAll();
  if (run.backgroundLogger) run.backgroundLogger->requestStop();
  if (run.metricsEndpoint) run.metricsEndpoint->requestStop();
  for (auto& worker : run.listeners) worker->join();
  for (auto& worker : run.forwarders) worker->join();
  if (run.backgroundLogger) run.backgroundLogger->join();
  if (run.metricsEndpoint) run.metricsEndpoint->join();
}

// Returns the failure that ended a running agent, empty after a plain stop request.
std::string runSteps(WorkerFactory* factory, platform::RunObserver* observer) {
  log::info("Started");
  const std::string path = configPath();
  const std::string directory = configDirectory(path);
  log::info("Changing directory to " + directory);
  // A failure leaves the agent where it was; opening the file then reports the real problem.
  platform::changeDirectory(directory);
  platform::startSockets();
  log::info("Reading config from " + path);

  Run run;
  // The path is opened as given, after the change of directory: a relative path with a
  // directory part is therefore resolved from inside that directory.
  run.config.readFile(path);
  readSettings(run);
  run.queue = std::make_unique<event::queue::EventQueue>(run.queueOptions);
  if (factory != nullptr) createWorkers(run, *factory);
  if (!standardOutputMode()) event::queue::load(*run.queue);
  startWorkers(run);
  if (observer != nullptr) observer->running();

  stopSignal().wait();

  if (observer != nullptr) observer->stopping();
  stopWorkers(run);
  if (!standardOutputMode()) event::queue::save(*run.queue);
  std::string failure = stopSignal().failure();
  if (failure.empty()) log::info("Stopped");
  return failure;
}

}  // namespace

std::string configDirectory(const std::string& path) {
  const size_t separator = path.find_last_of("\\/");
  if (separator == std::string::npos) return ".";
  return path.substr(0, separator);
}

bool runAgent(WorkerFactory* factory, platform::RunObserver* observer) {
  platform::installSignalHandlers();
  std::string failure;
  try {
    failure = runSteps(factory, observer);
  } catch (const std::exception& e) {
    failure = e.what();
  }
  // The request was for this run; a later run in the same process starts without one.
  stopSignal().clear();
  if (failure.empty()) return true;
  log::error("Run failed: " + failure);
  return false;
}

}  // namespace vantrelo::app

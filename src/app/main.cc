#include "app/entry.h"
#include "app/workers.h"

int main(int argc, char** argv) {
  ns::app::AgentWorkers workers;
  return ns::app::entry(argc, argv, &workers);
}

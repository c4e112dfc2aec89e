#include "app/entry.h"
#include "app/workers.h"

int main(int argc, char** argv) {
  vantrelo::app::AgentWorkers workers;
  return vantrelo::app::entry(argc, argv, &workers);
}

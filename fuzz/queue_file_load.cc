// Loads arbitrary bytes as a queue file into a small queue: any input may fail to load, but
// only with the module's own errors, and whatever was loaded must pop back out.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <random>
#include <string>

#include "event/queue_file.h"

namespace {

const std::string& scratchPath() {
  // One file per process, so parallel fuzzing jobs do not share it.
  static const std::string path =
      (std::filesystem::temp_directory_path() /
       ("vantrelo_queue_file_load_" + std::to_string(std::random_device()()) + ".queue"))
          .string();
  return path;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string& path = scratchPath();
  {
    std::FILE* file = std::fopen(path.c_str(), "wb");
    if (file == nullptr) return 0;
    // An empty input arrives as a null pointer, which fwrite must not be given.
    const bool written = size == 0 || std::fwrite(data, 1, size, file) == size;
    std::fclose(file);
    if (!written) return 0;
  }
  vantrelo::event::queue::QueueOptions options;
  options.size = 256;
  options.filename = path;
  vantrelo::event::queue::EventQueue queue(options);
  try {
    vantrelo::event::queue::load(queue);
  } catch (const vantrelo::event::queue::QueueError&) {
  } catch (const vantrelo::file::FileError&) {
  }
  std::string out;
  while (queue.count() > 0) queue.pop(out);
  std::remove(path.c_str());
  return 0;
}

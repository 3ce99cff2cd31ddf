#include "core/log.h"

#include <time.h>

extern "C" {

PLRContext plrContext = {0, 0, nullptr};

// Writes one timestamped line when `level` is enabled and a stream is open.
// The logger never fails and never reports: write errors are ignored.
void PLRVLog(unsigned level, const char* functionName, const char* format, va_list args) {
  FILE* stream = plrContext.logStream;
  if ((level & plrContext.currentLevel) == 0 || stream == nullptr) return;

  char stamp[16];
  time_t now = time(nullptr);
  struct tm local;
  size_t len = 0;
  if (localtime_r(&now, &local) != nullptr) len = strftime(stamp, sizeof stamp, "%b %d %T", &local);
  if (len == 0 || len > 15) stamp[0] = '\0';

  fprintf(stream, "%s ", stamp);
  if (functionName != nullptr) fprintf(stream, "%s - ", functionName);
  vfprintf(stream, format, args);
  fputc('\n', stream);
  fflush(stream);
}

void PLRLog(unsigned level, const char* functionName, const char* format, ...) {
  va_list args;
  va_start(args, format);
  PLRVLog(level, functionName, format, args);
  va_end(args);
}

}  // extern "C"

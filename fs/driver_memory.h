// Scanner plumbing shared by every file system: driver objects live in
// memory from the library's manager like every other driver allocation.
#pragma once
#include <new>

#include "core/api/scanner.h"

namespace QORV {

// Builds a driver of type Fs in the library's memory, runs `run(fs)` and
// destroys the driver again.
template <class Fs, class Run>
api::status_t WithDriver(api::CLibEnv* env, Run&& run) {
  void* place = env->mem->Allocate(sizeof(Fs), 0);
  if (!place) return api::ERR_NO_MEMORY;
  Fs* fs = new (place) Fs(env);
  api::status_t s = run(fs);
  fs->~Fs();
  env->mem->Free(place);
  return s;
}

}  // namespace QORV

#pragma once

#include <memory>

#include <flite/flite.h>

namespace qs_ns {

struct WaveDeleter {
  void operator()(cst_wave* wave) const { delete_wave(wave); }
};

/// A synthesised wave: mono signed 16-bit samples at the voice's rate, which stands in the wave.
using Wave = std::unique_ptr<cst_wave, WaveDeleter>;

}  // namespace qs_ns

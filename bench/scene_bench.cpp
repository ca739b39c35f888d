// SPDX-License-Identifier: Apache-2.0
// Simulator cost of one frame per sensor family at the default geometry: the evaluation runs
// thousands of frames, so the simulator must stay well below the library's own cost.
#include <benchmark/benchmark.h>

#include "host/scene.h"

namespace {

void BM_GenerateFrame(benchmark::State& state) {
  const auto type = static_cast<std::int32_t>(state.range(0));
  const bool zhdr = state.range(1) != 0;
  const kestrel_host::SensorSetup sensor = kestrel_host::DefaultSensor(type, zhdr);
  kestrel_host::SceneSetup scene;
  scene.motion = 2.0;
  constexpr std::int32_t kFrames = 1000;
  kestrel_host::SceneSimulator sim(sensor, scene, kFrames);
  std::int32_t index = 0;
  for (auto _ : state) {
    kestrel_host::Frame f = sim.Generate(index, 0.01);
    benchmark::DoNotOptimize(f.grid.data());
    index = (index + 1) % kFrames;
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_GenerateFrame)
    ->ArgNames({"type", "zhdr"})
    ->Args({0, 0})
    ->Args({0, 1})
    ->Args({1, 0})
    ->Args({2, 0})
    ->Unit(benchmark::kMicrosecond);

}  // namespace

// The inner pieces that requests, or the daemon's start, are made of.

#include <string>

#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <unistd.h>

#include "agent/access.h"
#include "agent/device_list.h"
#include "hooks/key_value_storage.h"
#include "util/log.h"

namespace {

constexpr int kDevices = 250;
constexpr const char* kLastAddress = "192.0.2.249";

// As a router writes it: several addresses a device, one a line.
std::string DeviceListText() {
  std::string text = R"({"devices": [)";
  for (int i = 0; i < kDevices; ++i) {
    const std::string number = std::to_string(i);
    text += std::string(i == 0 ? "" : ",") + "\n  {\"name\": \"device-" + number +
            R"(", "ip": ["192.0.2.)" + number + R"(", "2001:db8::)" + number +
            R"("], "mac": "02:00:5e:10:00:01"})";
  }
  return text + "\n]}\n";
}

// To a file alone, as on a router whose console nobody reads.
void LogLineToFile(benchmark::State& state) {
  char path[] = "/tmp/tavlo-micro-XXXXXX";
  const int fd = ::mkstemp(path);
  if (fd < 0) {
    state.SkipWithError("no temporary file");
    return;
  }
  ::close(fd);
  Orx::Log::Open("micro", path, Orx::Log::kInfo, false, false, true);
  for (auto _ : state) {
    ORX_LOG(Orx::Log::kInfo, "%s %s", "GET", "/api/version");
  }
  Orx::Log::Close();
  ::unlink(path);
}
BENCHMARK(LogLineToFile);

void LogLineAboveTheLevel(benchmark::State& state) {
  for (auto _ : state) {
    ORX_LOG(Orx::Log::kDebug, "%s %s", "GET", "/api/version");
  }
}
BENCHMARK(LogLineAboveTheLevel);

void AccessDecisionFirst(benchmark::State& state) {
  const std::string uri = "/api/version";
  for (auto _ : state) {
    benchmark::DoNotOptimize(tavlo::ApiRequestSupported(uri, EVHTTP_REQ_GET));
  }
}
BENCHMARK(AccessDecisionFirst);

void AccessDecisionRefused(benchmark::State& state) {
  const std::string uri = "/api/1/profiles";
  for (auto _ : state) {
    benchmark::DoNotOptimize(tavlo::ApiRequestSupported(uri, EVHTTP_REQ_GET));
  }
}
BENCHMARK(AccessDecisionRefused);

void KeyComparison(benchmark::State& state) {
  const std::string expected = "s3cret-Pairing-Key";
  const std::string given = expected;
  for (auto _ : state) {
    benchmark::DoNotOptimize(tavlo::IsSameKey(expected, given));
  }
}
BENCHMARK(KeyComparison);

void KeyValueText(benchmark::State& state) {
  std::string text;
  for (int i = 0; i < 20; ++i) {
    text += "setting_" + std::to_string(i) + ": some value\n";
  }
  for (auto _ : state) {
    benchmark::DoNotOptimize(Orx::KeyValueStorage::StringToMap(text));
  }
}
BENCHMARK(KeyValueText);

void DeviceListParsed(benchmark::State& state) {
  const std::string text = DeviceListText();
  for (auto _ : state) {
    tavlo::DeviceList doc;
    std::string error;
    benchmark::DoNotOptimize(tavlo::ParseDeviceList(text, &doc, &error));
  }
}
BENCHMARK(DeviceListParsed);

void LastDeviceLookedUp(benchmark::State& state) {
  tavlo::DeviceList doc;
  std::string error;
  if (!tavlo::ParseDeviceList(DeviceListText(), &doc, &error) ||
      tavlo::FindMac(doc, kLastAddress).empty()) {
    state.SkipWithError("the device is not in the list");
    return;
  }
  for (auto _ : state) {
    benchmark::DoNotOptimize(tavlo::FindMac(doc, kLastAddress));
  }
}
BENCHMARK(LastDeviceLookedUp);

}  // namespace

#pragma once
#include <algorithm>
#include <chrono>
#include <vector>

#include <benchmark/benchmark.h>

/// Times two ways of doing the same thing in turn, so that a machine whose speed drifts drifts for both. The
/// benchmark's own time is the first's; counters give the peer's and the ratio as medians over the pairs.
class Paired {
 public:
  explicit Paired(benchmark::State& state) : state_(state) {}

  template <class Ours, class Peer>
  void iterate(const Ours& ours, const Peer& peer) {
    const double oursSeconds = seconds(ours);
    add(oursSeconds, seconds(peer));
  }
  void add(double oursSeconds, double peerSeconds) {
    state_.SetIterationTime(oursSeconds);
    ours_.push_back(oursSeconds);
    peer_.push_back(peerSeconds);
    ratio_.push_back(oursSeconds / peerSeconds);
  }
  /// Call once, after the last pair.
  void report() {
    state_.counters["ours_s"] = median(ours_);
    state_.counters["peer_s"] = median(peer_);
    state_.counters["ratio"] = median(ratio_);
  }

  template <class Work>
  static double seconds(const Work& work) {
    const auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  }
  static double median(std::vector<double> values) {
    std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2),
                     values.end());
    return values[values.size() / 2];
  }

 private:
  benchmark::State& state_;
  std::vector<double> ours_;
  std::vector<double> peer_;
  std::vector<double> ratio_;
};

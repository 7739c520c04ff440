// Time and samples.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <vector>

class bench_watch {
public:
  double ms() const
  {
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - begin_).count();
  }

private:
  std::chrono::steady_clock::time_point begin_ = std::chrono::steady_clock::now();
};

// The sample below which `share` (0 to 1) of them lie; 0 when there are none.
inline double bench_quantile(std::vector<double> samples, double share)
{
  if (samples.empty()) {
    return 0;
  }
  std::sort(samples.begin(), samples.end());
  size_t index = static_cast<size_t>(share * static_cast<double>(samples.size()));
  return samples[std::min(index, samples.size() - 1)];
}

inline double bench_median(const std::vector<double> &samples)
{
  return bench_quantile(samples, 0.5);
}

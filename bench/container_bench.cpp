// A listing of 100,000 rows in a ZelContainer, beside the same rows in Boost.JSON objects.

#include <benchmark/benchmark.h>
#include <malloc.h>

#include <boost/json/src.hpp>

#include "libZel/container.h"

namespace {

constexpr int kRows = 100000;

size_t HeapBytes() {
  const auto usage = mallinfo2();
  return usage.uordblks + usage.hblkhd;
}

ZelContainer MakeListing() {
  ZelContainer listing;
  ZelContainer row;
  for (int i = 0; i < kRows; ++i) {
    ZelString name;
    row.SetString("name", name.Printf("some file name %d.txt", i), kNoIndex);
    row.SetInt64("size", int64_t{i} * 4096, kNoIndex);
    row.SetInt64("modified", 1700000000 + i, kNoIndex);
    row.SetInt32("attributes", 32, kNoIndex);
    row.SetInt32("mode", 0644, kNoIndex);
    row.SetBool("is-file", true, kNoIndex);
    row.SetBool("is-ascii", false, kNoIndex);
    listing.SetContainer("Values", row, static_cast<uint32_t>(i));
    row.Clear();
  }
  return listing;
}

boost::json::value MakeJsonListing() {
  boost::json::array rows;
  for (int i = 0; i < kRows; ++i) {
    boost::json::object row;
    row["name"] = "some file name " + std::to_string(i) + ".txt";
    row["size"] = int64_t{i} * 4096;
    row["modified"] = 1700000000 + i;
    row["attributes"] = 32;
    row["mode"] = 0644;
    row["is-file"] = true;
    row["is-ascii"] = false;
    rows.push_back(std::move(row));
  }
  return rows;
}

template <typename Make>
void BuildListing(benchmark::State& state, Make make) {
  size_t bytes = 0;
  for (auto _ : state) {
    const size_t before = HeapBytes();
    const auto listing = make();
    state.PauseTiming();
    bytes = HeapBytes() - before;
    state.ResumeTiming();
    benchmark::DoNotOptimize(&listing);
  }
  state.counters["bytes_per_row"] = static_cast<double>(bytes) / kRows;
}

BENCHMARK_CAPTURE(BuildListing, ZelContainer, MakeListing)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BuildListing, BoostJson, MakeJsonListing)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();

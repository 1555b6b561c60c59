// SPDX-License-Identifier: GPL-2.0-only
#include "bench/bounds.h"

#include <malloc.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <ctime>

#include "bench/subject.h"
#include "kernel/fast_path.h"
#include "kernel/jiffies.h"
#include "kernel/proc_tree.h"
#include "kernel/rcupdate.h"
#include "module/ipc/table.h"

namespace tarvelo::bench {
namespace {

constexpr std::size_t many = 100'000;
/// Longer than any timer of a connection runs.
constexpr u32 all_is_forgotten = 10U * 24 * 3600 * HZ;

std::size_t heap_in_use() {
  const struct mallinfo2 info = mallinfo2();
  return info.uordblks + info.hblkhd;
}

/// Of this thread: others may be busy on the same machine.
double processor_seconds() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

template <typename Work>
double seconds_of(Work&& work) {
  const double start = processor_seconds();
  work();
  return processor_seconds() - start;
}

/// Of packets of `connections`, in random order.
double nanoseconds_a_packet(subject& s, const std::vector<connection>& connections) {
  constexpr unsigned batches = 400;
  feeder feed(s, connections);
  double seconds = 0;
  for (unsigned i = 0; i < batches; ++i) {
    feed.prepare();
    seconds += seconds_of([&] { feed.feed(); });
  }
  return seconds * 1e9 / (batches * feeder::batch_frames);
}

/// Lines of the listing of connections behind its header, read as `cat` does.
std::size_t read_listing() {
  int error = 0;
  const auto file = proc::open_file::open("vok/ipc_info", &error);
  if (file == nullptr) wrong("the listing does not open");
  std::array<char, 4096> piece;
  std::size_t lines = 0;
  for (ssize_type got = 0; (got = file->read(piece.data(), piece.size())) > 0;)
    lines += static_cast<std::size_t>(std::count(piece.begin(), piece.begin() + got, '\n'));
  return lines - 1;
}

/// Of the whole router, a connection's share where nothing else is said.
struct figures {
  double opening;  ///< seconds
  double heap;     ///< bytes
  double packet;   ///< nanoseconds on the fast path
  double listing;  ///< seconds
  double ending;   ///< seconds
  long long left;  ///< bytes of heap, when the router is gone
};

figures measure(std::size_t count) {
  const auto connections = make_connections(count);
  const auto share = [count](double total) { return total / static_cast<double>(count); };
  figures f{};
  const std::size_t before = heap_in_use();
  std::unique_ptr<subject> router;
  f.opening = share(seconds_of([&] { router = make_router_fast(connections); }));
  f.heap = share(static_cast<double>(heap_in_use() - before));
  f.packet = nanoseconds_a_packet(*router, connections);
  const auto entries = static_cast<std::size_t>(kcih->_vok_ipc_count_get(kcih));
  std::size_t lines = 0;
  f.listing = share(seconds_of([&] { lines = read_listing(); }));
  if (entries != 2 * count || lines != entries) wrong("the listing does not show each entry once");
  f.ending = share(seconds_of([] {
    kernel_clock::advance_to(jiffies + all_is_forgotten);
    rcu_barrier();
  }));
  if (kcih->_vok_ipc_count_get(kcih) != 0) wrong("entries are left");
  router.reset();
  rcu_barrier();
  f.left = static_cast<long long>(heap_in_use()) - static_cast<long long>(before);
  return f;
}

void print_many_connections(std::size_t count) {
  const figures f = measure(count);
  std::printf("%zu connections through the router, two entries each\n", count);
  std::printf("  opened, 28 packets each       %8.1f us a connection\n", f.opening * 1e6);
  std::printf("  heap, stack and module        %8.0f bytes a connection\n", f.heap);
  std::printf("  a packet on the fast path     %8.0f ns\n", f.packet);
  std::printf("  listed                        %8.2f us a connection\n", f.listing * 1e6);
  std::printf("  timed out                     %8.2f us a connection\n", f.ending * 1e6);
  std::printf("  heap left behind              %8lld bytes\n", f.left);
}

/// Connections whose keys fall into the bucket of the first.
std::vector<connection> colliding(std::size_t count) {
  const auto bucket = [](const connection& c) {
    return ipc_bucket({c.client, c.server, c.client_port, c.server_port, wire::ip_protocol::tcp});
  };
  std::vector<connection> result = make_connections(1);
  connection next = result.front();
  while (result.size() <= count) {
    next.server = wire::htonl(wire::ntohl(next.server) + 1);
    if (bucket(next) == bucket(result.front())) result.push_back(next);
  }
  return result;
}

void print_collisions() {
  std::printf("an established connection among others, entries in one chain\n");
  double alone = 0;
  for (const std::size_t others : {0, 10, 100, 1000, 10'000}) {
    const auto connections = colliding(others);
    const auto module = make_forward(connections);
    const double packet = nanoseconds_a_packet(*module, {connections.front()});
    if (others == 0) alone = packet;
    std::printf("  %6zu others                 %8.0f ns a packet, %.1f times as long\n", others,
                packet, packet / alone);
  }
}

}  // namespace

void print_bounds() {
  // What is allocated once, by whoever comes first.
  static_cast<void>(measure(many / 100));
  for (const std::size_t count : {many / 10, many})
    print_many_connections(count);
  print_collisions();
}

}  // namespace tarvelo::bench

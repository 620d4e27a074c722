// A table of a million routes with its indexes: putting them all in, the most specific prefix of an
// address, an exact prefix, a name, a thousand routes in order, and taking all out again. Beside
// SQLite in memory, Boost.MultiIndex, and a plain radix tree (libndpi's Patricia tree), which has
// prefixes only.
//
// What has no index of prefixes is asked for one prefix after the other, the longest first, of
// those lengths that there are. SQLite is also asked in one statement, for the longest of all of
// them.
//
// KORVO_BENCH_ROWS is the number of routes in place of the million.

#include <Korvo/Batch.h>
#include <Korvo/Table.h>
#include <benchmark/benchmark.h>
#include <malloc.h>
#include <ndpi_api.h>
#include <netinet/in.h>
#include <sqlite3.h>

#include <algorithm>
#include <array>
#include <boost/multi_index/composite_key.hpp>
#include <boost/multi_index/hashed_index.hpp>
#include <boost/multi_index/member.hpp>
#include <boost/multi_index/ordered_index.hpp>
#include <boost/multi_index_container.hpp>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <string_view>
#include <unordered_set>
#include <utility>
#include <vector>

#include "row/measure.h"

namespace bench {
namespace {

using benchmark::DoNotOptimize;
using Korvo::IpGenAddr;
using Korvo::IpGenPrefix;
using Korvo::oid_t;

// ---------------------------------------------------------------------------------------------
// Routes

std::size_t routeCount() {
  const char* const count = std::getenv("KORVO_BENCH_ROWS");
  return count == nullptr ? 1'000'000 : std::strtoul(count, nullptr, 10);
}

/// Family, address without host bits, length: bytes that can be compared and hashed.
struct Net {
  std::array<std::uint8_t, 18> bytes{};

  Net() = default;
  Net(Korvo::AddressFamily af, const std::uint8_t* addr, unsigned int length) {
    bytes[0] = static_cast<std::uint8_t>(af);
    bytes[17] = static_cast<std::uint8_t>(length);
    std::memcpy(&bytes[1], addr, length / 8);
    if (length % 8 != 0) {
      bytes[1 + length / 8] = static_cast<std::uint8_t>(addr[length / 8] & 0xFF00U >> length % 8);
    }
  }
  Korvo::AddressFamily af() const { return static_cast<Korvo::AddressFamily>(bytes[0]); }
  const std::uint8_t* addr() const { return &bytes[1]; }
  unsigned int length() const { return bytes[17]; }
  bool operator==(const Net&) const = default;
};
std::size_t hash_value(const Net& net) {
  return std::hash<std::string_view>()(
      {reinterpret_cast<const char*>(net.bytes.data()), net.bytes.size()});
}
struct NetHash {
  std::size_t operator()(const Net& net) const { return hash_value(net); }
};

struct Route {
  oid_t oid;
  Net net;
  std::string name;
  std::uint32_t metric;
};

/// Routes that lie as those of the Internet do: a fifth of them IPv6, most of 24 and 48 bits, many
/// side by side in the areas of few networks, and areas around them.
class Routes {
 public:
  static const Routes& get() {
    static const Routes routes;
    return routes;
  }

  std::vector<Route> all;
  /// Addresses in routes, by family, in random order.
  std::array<std::vector<IpGenAddr>, 2> addresses;
  std::vector<std::size_t> shuffled;

 private:
  using Shares = std::vector<std::pair<unsigned int, unsigned int>>;  ///< length, of a thousand

  Routes() {
    const std::size_t count = routeCount();
    std::unordered_set<Net, NetHash> known;
    const Shares v4Lengths{{8, 1},   {12, 1},  {14, 1},  {15, 2},   {16, 14},  {17, 8},   {18, 14},
                           {19, 26}, {20, 44}, {21, 52}, {22, 112}, {23, 104}, {24, 615}, {32, 6}};
    const Shares v6Lengths{{20, 1},  {29, 42}, {32, 125}, {36, 50}, {40, 90},
                           {44, 92}, {46, 20}, {48, 560}, {64, 20}};
    const auto v4Areas = areas(60'000, 0x01, 0xDF, 12, 20);
    const auto v6Areas = areas(30'000, 0x20, 0x2C, 28, 36);
    while (all.size() < count) {
      const bool isV6 = random_() % 5 == 0;
      const auto& someAreas = isV6 ? v6Areas : v4Areas;
      std::array<std::uint8_t, 16> addr = someAreas[random_() % someAreas.size()];
      randomBits(addr, isV6 ? 32 : 16, 64);
      const Net net(isV6 ? Korvo::ipv6_ : Korvo::ipv4_, addr.data(),
                    lengthOf(isV6 ? v6Lengths : v4Lengths));
      if (!known.insert(net).second) continue;
      const auto oid = static_cast<oid_t>(all.size() + 1);
      all.push_back({oid, net, "AS" + std::to_string(random_() % 65536) + "-" + std::to_string(oid),
                     static_cast<std::uint32_t>(random_() % 100'000)});
    }
    for (std::size_t i = 0; i < all.size(); ++i) {
      shuffled.push_back(i);
      const Net& net = all[i].net;
      std::array<std::uint8_t, 16> addr{};
      std::copy_n(net.addr(), 16, addr.begin());
      const bool isV6 = net.af() == Korvo::ipv6_;
      randomBits(addr, net.length(), isV6 ? 128 : 32);
      addresses[isV6 ? 1 : 0].emplace_back(net.af(), addr.data());
    }
    std::shuffle(shuffled.begin(), shuffled.end(), random_);
    for (auto& some : addresses) std::shuffle(some.begin(), some.end(), random_);
  }

  std::vector<std::array<std::uint8_t, 16>> areas(std::size_t count, unsigned int least,
                                                  unsigned int most, unsigned int shortest,
                                                  unsigned int longest) {
    std::vector<std::array<std::uint8_t, 16>> some(count);
    for (auto& addr : some) {
      randomBits(addr, 0, shortest + static_cast<unsigned int>(random_() % (longest - shortest)));
      addr[0] = static_cast<std::uint8_t>(least + random_() % (most - least));
    }
    return some;
  }
  void randomBits(std::array<std::uint8_t, 16>& addr, unsigned int from, unsigned int to) {
    for (unsigned int i = from; i < to; ++i) {
      if ((random_() & 1) != 0)
        addr[i / 8] = static_cast<std::uint8_t>(addr[i / 8] ^ 128U >> i % 8);
    }
  }
  unsigned int lengthOf(const Shares& shares) {
    auto left = static_cast<unsigned int>(random_() % 1000);
    for (const auto& [length, share] : shares) {
      if (left < share) return length;
      left -= share;
    }
    return shares.back().first;
  }

  std::mt19937 random_{1};
};

// ---------------------------------------------------------------------------------------------
// Contestants: each says which oid it found, 0 for none

constexpr std::size_t batchSize = 1000;

struct RouteLayout
    : Korvo::RowLayout<11, Korvo::Column<"metric", std::uint32_t>,
                       Korvo::Column<"name", std::string>, Korvo::Column<"net", IpGenPrefix>> {};
using RouteRow = Korvo::TableRow<RouteLayout>;

/// A table without indexes: what a row takes beyond its own length.
class KorvoRows {
 public:
  void insert(const std::vector<Route>& routes) {
    Korvo::Batch batch(table_);
    for (std::size_t i = 0; i < routes.size(); ++i) {
      const RouteRow row = rowOf(routes[i]);
      lengths += row.rowLength();
      batch.put(row);
      if (i % batchSize == batchSize - 1) batch.commit();
    }
    batch.commit();
  }
  static RouteRow rowOf(const Route& route) {
    RouteRow row;
    row.create(route.oid);
    row.set<"metric">(route.metric);
    row.set<"name">(route.name);
    row.set<"net">(IpGenPrefix(IpGenAddr(route.net.af(), route.net.addr()),
                               static_cast<Korvo::byte_t>(route.net.length())));
    return row;
  }

  std::size_t lengths = 0;

 private:
  Korvo::Table<RouteRow> table_{"net/route"};
};

class KorvoRoutes {
 public:
  KorvoRoutes() {
    byNet_ = &table_.longestPrefix<"net">();
    byName_ = &table_.unique<"name">();
    byMetric_ = &table_.ordered<"metric">();
  }
  void insert(const std::vector<Route>& routes) {
    Korvo::Batch batch(table_);
    for (std::size_t i = 0; i < routes.size(); ++i) {
      batch.put(KorvoRows::rowOf(routes[i]));
      if (i % batchSize == batchSize - 1) batch.commit();
    }
    batch.commit();
  }
  void removeAll(const std::vector<Route>& routes, const std::vector<std::size_t>& order) {
    Korvo::Batch batch(table_);
    for (std::size_t i = 0; i < order.size(); ++i) {
      batch.remove(routes[order[i]].oid);
      if (i % batchSize == batchSize - 1) batch.commit();
    }
    batch.commit();
  }
  oid_t mostSpecific(const IpGenAddr& addr) { return oidOf(byNet_->find(addr)); }
  /// The row itself, at which nobody looks.
  oid_t mostSpecificRow(const IpGenAddr& addr) { return byNet_->find(addr).isNull() ? 0 : 1; }
  oid_t exact(const Net& net) {
    const IpGenPrefix prefix(IpGenAddr(net.af(), net.addr()),
                             static_cast<Korvo::byte_t>(net.length()));
    return oidOf(byNet_->exact(prefix).front());
  }
  oid_t byName(const std::string& name) { return oidOf(byName_->find(name)); }
  std::uint64_t range(std::uint32_t from, int count) {
    std::uint64_t sum = 0;
    for (const RouteRow& row : byMetric_->from(from)) {
      sum += row.rowOid();
      if (--count == 0) break;
    }
    return sum;
  }

 private:
  static oid_t oidOf(const RouteRow& row) { return row.isNull() ? 0 : row.rowOid(); }

  Korvo::Table<RouteRow> table_{"net/route"};
  Korvo::PrefixIndex<RouteRow>* byNet_;
  Korvo::UniqueIndex<RouteRow, std::string>* byName_;
  Korvo::OrderedIndex<RouteRow, std::uint32_t>* byMetric_;
};

/// Asks for one prefix after the other.
template <typename Exact>
oid_t longestOf(const std::array<std::set<unsigned int, std::greater<>>, 2>& lengths,
                const IpGenAddr& addr, const Exact& exact) {
  for (const unsigned int length : lengths[addr.af() == Korvo::ipv6_ ? 1 : 0]) {
    if (const oid_t oid = exact(Net(addr.af(), addr.bytes(), length)); oid != 0) return oid;
  }
  return 0;
}

class MultiIndexRoutes {
 public:
  void insert(const std::vector<Route>& routes) {
    for (const Route& route : routes) {
      routes_.insert(route);
      lengths_[route.net.af() == Korvo::ipv6_ ? 1 : 0].insert(route.net.length());
    }
  }
  void removeAll(const std::vector<Route>& routes, const std::vector<std::size_t>& order) {
    for (const std::size_t i : order) routes_.get<ByOid>().erase(routes[i].oid);
  }
  oid_t mostSpecific(const IpGenAddr& addr) {
    return longestOf(lengths_, addr, [this](const Net& net) { return exact(net); });
  }
  oid_t exact(const Net& net) { return oidOf(routes_.get<ByNet>(), net); }
  oid_t byName(const std::string& name) { return oidOf(routes_.get<ByName>(), name); }
  std::uint64_t range(std::uint32_t from, int count) {
    const auto& index = routes_.get<ByMetric>();
    std::uint64_t sum = 0;
    for (auto at = index.lower_bound(from); at != index.end() && count-- > 0; ++at) sum += at->oid;
    return sum;
  }

 private:
  template <typename Index, typename Key>
  static oid_t oidOf(const Index& index, const Key& key) {
    const auto found = index.find(key);
    return found == index.end() ? 0 : found->oid;
  }
  struct ByOid;
  struct ByNet;
  struct ByName;
  struct ByMetric;
  template <auto member>
  using Member = boost::multi_index::member<
      Route, std::remove_reference_t<decltype(std::declval<Route&>().*member)>, member>;

  boost::multi_index_container<
      Route,
      boost::multi_index::indexed_by<
          boost::multi_index::hashed_unique<boost::multi_index::tag<ByOid>, Member<&Route::oid>>,
          boost::multi_index::hashed_non_unique<boost::multi_index::tag<ByNet>,
                                                Member<&Route::net>>,
          boost::multi_index::hashed_unique<boost::multi_index::tag<ByName>, Member<&Route::name>>,
          boost::multi_index::ordered_non_unique<
              boost::multi_index::tag<ByMetric>,
              boost::multi_index::composite_key<Route, Member<&Route::metric>,
                                                Member<&Route::oid>>>>>
      routes_;
  std::array<std::set<unsigned int, std::greater<>>, 2> lengths_;
};

class SqliteRoutes {
 public:
  SqliteRoutes() {
    check(sqlite3_open(":memory:", &db_));
    run("CREATE TABLE route (oid INTEGER PRIMARY KEY, net BLOB, name TEXT, metric INTEGER)");
    run("CREATE INDEX by_net ON route (net)");
    run("CREATE UNIQUE INDEX by_name ON route (name)");
    run("CREATE INDEX by_metric ON route (metric, oid)");
    insert_ = prepare("INSERT INTO route VALUES (?, ?, ?, ?)");
    remove_ = prepare("DELETE FROM route WHERE oid = ?");
    exact_ = prepare("SELECT oid FROM route WHERE net = ?");
    byName_ = prepare("SELECT oid FROM route WHERE name = ?");
    range_ = prepare("SELECT oid FROM route WHERE metric >= ? ORDER BY metric, oid LIMIT ?");
  }
  SqliteRoutes(const SqliteRoutes&) = delete;
  SqliteRoutes& operator=(const SqliteRoutes&) = delete;
  ~SqliteRoutes() {
    for (sqlite3_stmt* const statement :
         {insert_, remove_, exact_, byName_, range_, longest_[0], longest_[1]}) {
      sqlite3_finalize(statement);
    }
    sqlite3_close(db_);
  }

  void insert(const std::vector<Route>& routes) {
    run("BEGIN");
    for (const Route& route : routes) {
      bind(insert_, 1, route.oid);
      bind(insert_, 2, route.net);
      bind(insert_, 3, route.name);
      bind(insert_, 4, route.metric);
      step(insert_);
      lengths_[route.net.af() == Korvo::ipv6_ ? 1 : 0].insert(route.net.length());
    }
    run("COMMIT");
  }
  void removeAll(const std::vector<Route>& routes, const std::vector<std::size_t>& order) {
    run("BEGIN");
    for (const std::size_t i : order) {
      bind(remove_, 1, routes[i].oid);
      step(remove_);
    }
    run("COMMIT");
  }
  oid_t mostSpecific(const IpGenAddr& addr) {
    return longestOf(lengths_, addr, [this](const Net& net) { return exact(net); });
  }
  oid_t mostSpecificInOneStatement(const IpGenAddr& addr) {
    const std::size_t family = addr.af() == Korvo::ipv6_ ? 1 : 0;
    sqlite3_stmt*& statement = longest_[family];
    if (statement == nullptr) {
      std::string wanted = "?";
      for (std::size_t i = 1; i < lengths_[family].size(); ++i) wanted += ", ?";
      // The length is the last byte.
      statement = prepare(("SELECT oid FROM route WHERE net IN (" + wanted +
                           ") ORDER BY substr(net, 18) DESC LIMIT 1")
                              .c_str());
    }
    std::vector<Net> nets;
    for (const unsigned int length : lengths_[family]) {
      nets.emplace_back(addr.af(), addr.bytes(), length);
    }
    for (std::size_t i = 0; i < nets.size(); ++i) {
      bind(statement, static_cast<int>(i) + 1, nets[i]);
    }
    return step(statement);
  }
  oid_t exact(const Net& net) {
    bind(exact_, 1, net);
    return step(exact_);
  }
  oid_t byName(const std::string& name) {
    bind(byName_, 1, name);
    return step(byName_);
  }
  std::uint64_t range(std::uint32_t from, int count) {
    bind(range_, 1, from);
    bind(range_, 2, static_cast<std::uint32_t>(count));
    std::uint64_t sum = 0;
    while (sqlite3_step(range_) == SQLITE_ROW) {
      sum += static_cast<std::uint64_t>(sqlite3_column_int64(range_, 0));
    }
    sqlite3_reset(range_);
    return sum;
  }

 private:
  static void check(int result) { require(result == SQLITE_OK, "SQLite fails"); }
  void run(const char* sql) { check(sqlite3_exec(db_, sql, nullptr, nullptr, nullptr)); }
  sqlite3_stmt* prepare(const char* sql) {
    sqlite3_stmt* statement = nullptr;
    check(sqlite3_prepare_v2(db_, sql, -1, &statement, nullptr));
    return statement;
  }
  static void bind(sqlite3_stmt* statement, int at, std::uint32_t number) {
    check(sqlite3_bind_int64(statement, at, number));
  }
  static void bind(sqlite3_stmt* statement, int at, const std::string& text) {
    check(sqlite3_bind_text(statement, at, text.data(), static_cast<int>(text.size()),
                            SQLITE_STATIC));
  }
  static void bind(sqlite3_stmt* statement, int at, const Net& net) {
    check(sqlite3_bind_blob(statement, at, net.bytes.data(), static_cast<int>(net.bytes.size()),
                            SQLITE_STATIC));
  }
  static oid_t step(sqlite3_stmt* statement) {
    const int result = sqlite3_step(statement);
    const oid_t oid =
        result == SQLITE_ROW ? static_cast<oid_t>(sqlite3_column_int64(statement, 0)) : 0;
    sqlite3_reset(statement);
    return oid;
  }

  sqlite3* db_ = nullptr;
  sqlite3_stmt* insert_ = nullptr;
  sqlite3_stmt* remove_ = nullptr;
  sqlite3_stmt* exact_ = nullptr;
  sqlite3_stmt* byName_ = nullptr;
  sqlite3_stmt* range_ = nullptr;
  std::array<sqlite3_stmt*, 2> longest_{};  ///< by family, once all routes are in
  std::array<std::set<unsigned int, std::greater<>>, 2> lengths_;
};

/// Has the prefixes, and the routes beside them.
class PatriciaRoutes {
 public:
  PatriciaRoutes() : trees_{ndpi_patricia_new(32), ndpi_patricia_new(128)} {}
  PatriciaRoutes(const PatriciaRoutes&) = delete;
  PatriciaRoutes& operator=(const PatriciaRoutes&) = delete;
  ~PatriciaRoutes() {
    for (ndpi_patricia_tree_t* const tree : trees_) {
      ndpi_patricia_destroy(tree, [](void* route) { delete static_cast<Route*>(route); });
    }
  }

  void insert(const std::vector<Route>& routes) {
    for (const Route& route : routes) {
      ndpi_prefix_t prefix = prefixOf(route.net.af(), route.net.addr(), route.net.length());
      ndpi_patricia_node_t* const node = ndpi_patricia_lookup(treeOf(route.net.af()), &prefix);
      ndpi_patricia_set_node_data(node, std::make_unique<Route>(route).release());
    }
  }
  void removeAll(const std::vector<Route>& routes, const std::vector<std::size_t>& order) {
    for (const std::size_t i : order) {
      const Net& net = routes[i].net;
      ndpi_prefix_t prefix = prefixOf(net.af(), net.addr(), net.length());
      ndpi_patricia_node_t* const node = ndpi_patricia_search_exact(treeOf(net.af()), &prefix);
      delete static_cast<Route*>(ndpi_patricia_get_node_data(node));
      ndpi_patricia_set_node_data(node, nullptr);
      ndpi_patricia_remove(treeOf(net.af()), node);
    }
  }
  oid_t mostSpecific(const IpGenAddr& addr) {
    ndpi_prefix_t prefix = prefixOf(addr.af(), addr.bytes(), addr.af() == Korvo::ipv6_ ? 128 : 32);
    return oidOf(ndpi_patricia_search_best(treeOf(addr.af()), &prefix));
  }
  oid_t exact(const Net& net) {
    ndpi_prefix_t prefix = prefixOf(net.af(), net.addr(), net.length());
    return oidOf(ndpi_patricia_search_exact(treeOf(net.af()), &prefix));
  }

 private:
  static ndpi_prefix_t prefixOf(Korvo::AddressFamily af, const std::uint8_t* addr,
                                unsigned int length) {
    ndpi_prefix_t prefix{};
    prefix.family = af == Korvo::ipv6_ ? AF_INET6 : AF_INET;
    prefix.bitlen = static_cast<std::uint16_t>(length);
    prefix.ref_count = 0;
    std::memcpy(&prefix.add, addr, af == Korvo::ipv6_ ? 16 : 4);
    return prefix;
  }
  static oid_t oidOf(ndpi_patricia_node_t* node) {
    if (node == nullptr) return 0;
    return static_cast<const Route*>(ndpi_patricia_get_node_data(node))->oid;
  }
  ndpi_patricia_tree_t* treeOf(Korvo::AddressFamily af) {
    return trees_[af == Korvo::ipv6_ ? 1 : 0];
  }

  std::array<ndpi_patricia_tree_t*, 2> trees_;
};

// ---------------------------------------------------------------------------------------------
// Workloads

template <typename Contestant>
Contestant& filled() {
  static Contestant routes;
  static const bool isFilled = (routes.insert(Routes::get().all), true);
  DoNotOptimize(isFilled);
  return routes;
}

std::size_t memoryTaken() {
  const struct mallinfo2 info = mallinfo2();
  return info.uordblks + info.hblkhd;
}

/// Puts all in, and takes all out in random order. Also tells the bytes that a route takes.
template <typename Contestant>
void addFilling(const std::string& contestant) {
  const auto measure = [](benchmark::State& state, bool isInsert) {
    const Routes& routes = Routes::get();
    double bytes = 0;
    for (auto _ : state) {
      const std::size_t before = memoryTaken();
      auto filling = std::make_unique<Contestant>();
      double start = threadSeconds();
      filling->insert(routes.all);
      if (isInsert) state.SetIterationTime(threadSeconds() - start);
      bytes = static_cast<double>(memoryTaken() - before) / static_cast<double>(routes.all.size());
      if (isInsert) continue;
      start = threadSeconds();
      filling->removeAll(routes.all, routes.shuffled);
      state.SetIterationTime(threadSeconds() - start);
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(routes.all.size()));
    if (isInsert) state.counters["bytes_per_route"] = bytes;
  };
  for (const bool isInsert : {true, false}) {
    const std::string name = isInsert ? "routes_insert/" : "routes_remove/";
    benchmark::RegisterBenchmark((name + contestant).c_str(),
                                 [=](benchmark::State& state) { measure(state, isInsert); })
        ->UseManualTime()
        ->Unit(benchmark::kMillisecond);
  }
}

template <typename Contestant>
void addMostSpecific(const std::string& contestant, oid_t (Contestant::*find)(const IpGenAddr&)) {
  for (const std::size_t family : {0U, 1U}) {
    add((family == 0 ? "routes_most_specific_v4/" : "routes_most_specific_v6/") + contestant,
        [family, find] {
          return [&routes = filled<Contestant>(), &some = Routes::get().addresses[family], find,
                  at = std::size_t{0}]() mutable {
            DoNotOptimize((routes.*find)(some[at]));
            if (++at == some.size()) at = 0;
          };
        });
  }
}

template <typename Contestant>
void addPrefixes(const std::string& contestant) {
  addMostSpecific(contestant, &Contestant::mostSpecific);
  add("routes_exact/" + contestant, [] {
    return [&routes = filled<Contestant>(), &all = Routes::get(), at = std::size_t{0}]() mutable {
      DoNotOptimize(routes.exact(all.all[all.shuffled[at]].net));
      if (++at == all.shuffled.size()) at = 0;
    };
  });
}

template <typename Contestant>
void addOthers(const std::string& contestant) {
  add("routes_by_name/" + contestant, [] {
    return [&routes = filled<Contestant>(), &all = Routes::get(), at = std::size_t{0}]() mutable {
      DoNotOptimize(routes.byName(all.all[all.shuffled[at]].name));
      if (++at == all.shuffled.size()) at = 0;
    };
  });
  add("routes_ordered_thousand/" + contestant, [] {
    return [&routes = filled<Contestant>(), random = std::minstd_rand()]() mutable {
      DoNotOptimize(routes.range(static_cast<std::uint32_t>(random() % 90'000), 1000));
    };
  });
}

/// Rows without indexes, and the bytes that each takes beyond its own.
void addRows() {
  benchmark::RegisterBenchmark(
      "rows_insert/korvo",
      [](benchmark::State& state) {
        const Routes& routes = Routes::get();
        const auto count = static_cast<double>(routes.all.size());
        for (auto _ : state) {
          const std::size_t before = memoryTaken();
          KorvoRows rows;
          const double start = threadSeconds();
          rows.insert(routes.all);
          state.SetIterationTime(threadSeconds() - start);
          const std::size_t taken = memoryTaken() - before;
          state.counters["length"] = static_cast<double>(rows.lengths) / count;
          state.counters["bytes_beyond_length"] = static_cast<double>(taken - rows.lengths) / count;
        }
      })
      ->UseManualTime()
      ->Unit(benchmark::kMillisecond);
}

void checkContestants() {
  const Routes& routes = Routes::get();
  KorvoRoutes& korvo = filled<KorvoRoutes>();
  MultiIndexRoutes& multi = filled<MultiIndexRoutes>();
  SqliteRoutes& sqlite = filled<SqliteRoutes>();
  PatriciaRoutes& patricia = filled<PatriciaRoutes>();
  const std::size_t count = std::min<std::size_t>(routes.all.size(), 2000);
  for (std::size_t i = 0; i < count; ++i) {
    for (const auto& some : routes.addresses) {
      if (i >= some.size()) continue;
      const oid_t oid = korvo.mostSpecific(some[i]);
      require(oid != 0 && oid == multi.mostSpecific(some[i]) &&
                  oid == sqlite.mostSpecific(some[i]) &&
                  oid == sqlite.mostSpecificInOneStatement(some[i]) &&
                  oid == patricia.mostSpecific(some[i]),
              "most specific prefix");
    }
    const Route& route = routes.all[routes.shuffled[i]];
    require(korvo.exact(route.net) == route.oid && multi.exact(route.net) == route.oid &&
                sqlite.exact(route.net) == route.oid && patricia.exact(route.net) == route.oid,
            "exact prefix");
    require(korvo.byName(route.name) == route.oid && multi.byName(route.name) == route.oid &&
                sqlite.byName(route.name) == route.oid,
            "name");
    if (i % 100 != 0) continue;
    const std::uint64_t sum = korvo.range(route.metric, 100);
    require(sum == multi.range(route.metric, 100) && sum == sqlite.range(route.metric, 100),
            "order");
  }
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
  using namespace bench;
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  checkContestants();
  addPrefixes<KorvoRoutes>("korvo");
  addMostSpecific("korvo_row", &KorvoRoutes::mostSpecificRow);
  addPrefixes<PatriciaRoutes>("patricia");
  addPrefixes<MultiIndexRoutes>("multi_index");
  addPrefixes<SqliteRoutes>("sqlite");
  addMostSpecific("sqlite_one_statement", &SqliteRoutes::mostSpecificInOneStatement);
  addOthers<KorvoRoutes>("korvo");
  addOthers<MultiIndexRoutes>("multi_index");
  addOthers<SqliteRoutes>("sqlite");
  addRows();
  addFilling<KorvoRoutes>("korvo");
  addFilling<MultiIndexRoutes>("multi_index");
  addFilling<SqliteRoutes>("sqlite");
  addFilling<PatriciaRoutes>("patricia");
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}

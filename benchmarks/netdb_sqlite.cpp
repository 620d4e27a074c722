// The demonstration's table beside SQLite, which holds the same rows in memory with an index: how
// fast ranges are loaded and rows pass a socket, how fast addresses are looked up, and in how much
// memory.
//
//   netdb_sqlite [--lookups N] FILE...
//
// Each contestant works in a process of its own, so that neither disturbs the other's memory. The
// program fails unless both find the same row for every address.

#include <malloc.h>
#include <sqlite3.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <random>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "rowLink.h"
#include "rowOps.h"
#include "rowSource.h"
#include "rowTable.h"

namespace {

using Korvo::IpGenAddr;
using Korvo::IpGenPrefix;
using netdb::PrefixRow;

// ---------------------------------------------------------------------------------------------
// What is measured

struct Figures {
  std::uint64_t ranges = 0;
  std::uint64_t rows = 0;
  double loadSeconds = 0;
  double transferSeconds = 0;
  double lookupSeconds = 0;
  std::uint64_t memory = 0;
  std::uint64_t peakMemory = 0;  // while the ranges were loaded
  std::uint64_t foundRows = 0;   // depends on every row that was found, and on their order
};

double secondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

/// Bytes of memory that the process occupies, without what it could give back.
std::uint64_t residentBytes() {
  ::malloc_trim(0);
  std::ifstream statm("/proc/self/statm");
  std::uint64_t all = 0;
  std::uint64_t resident = 0;
  statm >> all >> resident;
  return resident * static_cast<std::uint64_t>(::sysconf(_SC_PAGESIZE));
}

/// The most memory that the process has occupied.
std::uint64_t peakResidentBytes() {
  rusage usage{};
  ::getrusage(RUSAGE_SELF, &usage);
  return static_cast<std::uint64_t>(usage.ru_maxrss) * 1024;
}

struct Input {
  std::vector<std::string> paths;
  std::vector<IpGenAddr> addresses;  // to be looked up
};

/// Calls `use` with each range of the input and its file's name.
template <typename Use>
std::uint64_t forEachRange(const Input& input, const Use& use) {
  std::uint64_t ranges = 0;
  for (const std::string& path : input.paths) {
    netdb::RangeFile file(path, [](std::uint32_t, const std::string&) {});
    for (netdb::RangeLine line; file.next(line); ++ranges) use(line, file.name());
  }
  return ranges;
}

/// First and last addresses of random ranges, half of each.
std::vector<IpGenAddr> someAddresses(const Input& input, std::size_t count) {
  std::vector<IpGenAddr> all;
  forEachRange(input, [&](const netdb::RangeLine& line, const std::string&) {
    all.push_back(all.size() % 2 == 0 ? line.range.first : line.range.last);
  });
  if (all.empty()) throw std::runtime_error("the input has no ranges");
  std::mt19937 random(1);
  std::vector<IpGenAddr> result;
  for (std::size_t i = 0; i < count; ++i) result.push_back(all[random() % all.size()]);
  return result;
}

std::uint64_t mixedIn(std::uint64_t sum, std::uint64_t oid) {
  return (sum ^ oid) * 0x9E3779B97F4A7C15;
}

// ---------------------------------------------------------------------------------------------
// The table of rows

class RowsInTable {
 public:
  std::uint64_t load(const Input& input) {
    std::uint64_t ranges = 0;
    Korvo::oid_t oid = 0;
    ranges = forEachRange(input, [&](const netdb::RangeLine& line, const std::string& file) {
      for (const IpGenPrefix& prefix : netdb::coveringPrefixes(line.range)) {
        table_.add(netdb::makeRow(prefix, line.country, file, line.line, ++oid));
      }
    });
    table_.index();
    return ranges;
  }

  std::uint64_t rows() const { return table_.rows().size(); }

  /// The object id of the row, 0 if there is none.
  std::uint64_t find(const IpGenAddr& addr) const {
    const PrefixRow row = table_.lookup(addr);
    return row.isNull() ? 0 : row.rowOid();
  }

  void send(int socket) const {
    netdb::RowSender sender(socket);
    for (auto row = table_.rows().begin(); row != table_.rows().end(); ++row) {
      sender.add(row.row());
      if (sender.full()) sender.send(true);
    }
    sender.send(true);
    sender.sendEnd(true);
  }

  static std::uint64_t receive(int socket) {
    netdb::RowTable table;
    netdb::Subscriber subscriber(
        table, [](std::uint64_t, const std::string& reason) { throw std::runtime_error(reason); });
    netdb::RowReceiver receiver(socket);
    while (receiver.receive(true) == netdb::RowReceiver::Result::received) {
      for (const auto& packet : receiver.packets()) subscriber.take(packet.bytes, packet.length);
    }
    return table.rows().size();
  }

 private:
  netdb::RowTable table_;
};

// ---------------------------------------------------------------------------------------------
// SQLite

class Statement {
 public:
  Statement(sqlite3* database, const char* text) {
    if (sqlite3_prepare_v2(database, text, -1, &statement_, nullptr) != SQLITE_OK) {
      throw std::runtime_error(sqlite3_errmsg(database));
    }
  }
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;
  ~Statement() { sqlite3_finalize(statement_); }

  void bind(int column, std::int64_t value) { sqlite3_bind_int64(statement_, column, value); }
  /// Text and bytes have to live until the statement has been stepped.
  void bind(int column, std::string_view text) {
    sqlite3_bind_text(statement_, column, text.data(), static_cast<int>(text.size()),
                      SQLITE_STATIC);
  }
  /// IPv4 addresses as numbers, IPv6 addresses as bytes: what SQLite orders fastest.
  void bind(int column, const IpGenAddr& addr) {
    if (addr.af() == Korvo::ipv4_) {
      bind(column, std::int64_t{__builtin_bswap32(Korvo::loadField<std::uint32_t>(addr.bytes()))});
    } else {
      sqlite3_bind_blob(statement_, column, addr.bytes(), 16, SQLITE_STATIC);
    }
  }

  /// Whether there is a row to read.
  bool step() {
    const int status = sqlite3_step(statement_);
    if (status != SQLITE_ROW && status != SQLITE_DONE) throw std::runtime_error("sqlite3_step");
    return status == SQLITE_ROW;
  }
  void reset() { sqlite3_reset(statement_); }

  sqlite3_stmt* get() const { return statement_; }

 private:
  sqlite3_stmt* statement_ = nullptr;
};

constexpr int columnCount = 11;

class Sqlite {
 public:
  Sqlite() {
    if (sqlite3_open(":memory:", &database_) != SQLITE_OK) throw std::runtime_error("sqlite3_open");
    execute(
        "create table prefix (oid integer primary key, first, last, length integer, country text, "
        "line integer, addresses integer, ipv6 integer, tags text, file text, fileLine integer)");
    insert_ = std::make_unique<Statement>(
        database_, "insert into prefix values (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10, ?11)");
  }
  Sqlite(const Sqlite&) = delete;
  Sqlite& operator=(const Sqlite&) = delete;
  ~Sqlite() {
    insert_.reset();
    find_.reset();
    sqlite3_close(database_);
  }

  std::uint64_t load(const Input& input) {
    execute("begin");
    const std::uint64_t ranges =
        forEachRange(input, [&](const netdb::RangeLine& line, const std::string& file) {
          for (const IpGenPrefix& prefix : netdb::coveringPrefixes(line.range)) {
            insert(prefix, line, file);
          }
        });
    execute("commit");
    execute("create index byFirst on prefix (first)");
    find_ = std::make_unique<Statement>(
        database_,
        "select oid, last >= ?1 from prefix where first <= ?1 order by first desc limit 1");
    return ranges;
  }

  std::uint64_t rows() const { return rows_; }

  std::uint64_t find(const IpGenAddr& addr) {
    find_->bind(1, addr);
    std::uint64_t oid = 0;
    if (find_->step() && sqlite3_column_int(find_->get(), 1) != 0) {
      oid = static_cast<std::uint64_t>(sqlite3_column_int64(find_->get(), 0));
    }
    find_->reset();
    return oid;
  }

  /// Each row in a packet: its columns, each behind its type and size.
  void send(int socket) const {
    Statement all(database_, "select * from prefix");
    std::array<std::vector<char>, batch> packets;
    std::size_t count = 0;
    while (all.step()) {
      pack(all.get(), packets[count++]);
      if (count == batch) sendPackets(socket, packets, std::exchange(count, 0));
    }
    sendPackets(socket, packets, count);
  }

  static std::uint64_t receive(int socket) {
    Sqlite copy;
    netdb::RowReceiver receiver(socket);
    copy.execute("begin");
    while (receiver.receive(true) == netdb::RowReceiver::Result::received) {
      for (const auto& packet : receiver.packets()) copy.insert({packet.bytes, packet.length});
    }
    copy.execute("commit");
    return copy.rows_;
  }

 private:
  static constexpr std::size_t batch = 128;

  void execute(const char* text) {
    if (sqlite3_exec(database_, text, nullptr, nullptr, nullptr) != SQLITE_OK) {
      throw std::runtime_error(sqlite3_errmsg(database_));
    }
  }

  void insert(const IpGenPrefix& prefix, const netdb::RangeLine& line, const std::string& file) {
    const IpGenAddr last = netdb::lastAddress(prefix);
    std::string tags = file;
    const std::string_view purpose = netdb::specialPurpose(prefix);
    if (!purpose.empty()) (tags += ',') += purpose;
    insert_->bind(1, static_cast<std::int64_t>(++rows_));
    insert_->bind(2, prefix.addr());
    insert_->bind(3, last);
    insert_->bind(4, std::int64_t{prefix.mask()});
    insert_->bind(5, line.country);
    insert_->bind(6, std::int64_t{line.line});
    insert_->bind(7, static_cast<std::int64_t>(netdb::addressCount(prefix)));
    insert_->bind(8, std::int64_t{prefix.addr().af() == Korvo::ipv6_});
    insert_->bind(9, tags);
    insert_->bind(10, file);
    insert_->bind(11, std::int64_t{line.line});
    insert_->step();
    insert_->reset();
  }

  static void pack(sqlite3_stmt* row, std::vector<char>& packet) {
    packet.clear();
    const auto append = [&](const void* data, std::size_t size) {
      const char* const bytes = static_cast<const char*>(data);
      packet.insert(packet.end(), bytes, bytes + size);
    };
    for (int column = 0; column < columnCount; ++column) {
      const auto type = static_cast<std::uint8_t>(sqlite3_column_type(row, column));
      append(&type, sizeof type);
      if (type == SQLITE_INTEGER) {
        const std::int64_t value = sqlite3_column_int64(row, column);
        append(&value, sizeof value);
      } else {
        const void* const data = sqlite3_column_blob(row, column);
        const auto size = static_cast<std::uint16_t>(sqlite3_column_bytes(row, column));
        append(&size, sizeof size);
        append(data, size);
      }
    }
  }

  void insert(std::span<const Korvo::byte_t> packet) {
    const Korvo::byte_t* from = packet.data();
    for (int column = 1; column <= columnCount; ++column) {
      const std::uint8_t type = *from++;
      if (type == SQLITE_INTEGER) {
        insert_->bind(column, Korvo::loadField<std::int64_t>(from));
        from += sizeof(std::int64_t);
        continue;
      }
      const auto size = Korvo::loadField<std::uint16_t>(from);
      from += sizeof size;
      if (type == SQLITE_TEXT) {
        insert_->bind(column, {reinterpret_cast<const char*>(from), size});
      } else {
        sqlite3_bind_blob(insert_->get(), column, from, size, SQLITE_STATIC);
      }
      from += size;
    }
    insert_->step();
    insert_->reset();
    ++rows_;
  }

  static void sendPackets(int socket, std::array<std::vector<char>, batch>& packets,
                          std::size_t count) {
    std::array<iovec, batch> parts;
    std::array<mmsghdr, batch> messages{};
    for (std::size_t i = 0; i < count; ++i) {
      parts[i] = {packets[i].data(), packets[i].size()};
      messages[i].msg_hdr.msg_iov = &parts[i];
      messages[i].msg_hdr.msg_iovlen = 1;
    }
    for (std::size_t sent = 0; sent < count;) {
      const int now =
          ::sendmmsg(socket, &messages[sent], static_cast<unsigned int>(count - sent), 0);
      if (now < 0) throw std::runtime_error("sendmmsg");
      sent += static_cast<std::size_t>(now);
    }
  }

  sqlite3* database_ = nullptr;
  std::unique_ptr<Statement> insert_;
  std::unique_ptr<Statement> find_;
  std::uint64_t rows_ = 0;
};

// ---------------------------------------------------------------------------------------------
// The run

/// Runs `work` in a child process, and gives what it writes to the socket it is given.
template <typename Work>
pid_t inChild(const Work& work) {
  std::fflush(nullptr);
  const pid_t child = ::fork();
  if (child < 0) throw std::runtime_error("fork");
  if (child != 0) return child;
  int status = 1;
  try {
    work();
    status = 0;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "netdb_sqlite: %s\n", e.what());
  }
  std::fflush(nullptr);
  ::_exit(status);
}

void await(pid_t child) {
  int status = 0;
  if (::waitpid(child, &status, 0) != child || status != 0) {
    throw std::runtime_error("a process has failed");
  }
}

template <typename Contestant>
Figures measure(const Input& input) {
  Figures figures;
  const std::uint64_t before = residentBytes();
  auto start = std::chrono::steady_clock::now();
  Contestant contestant;
  figures.ranges = contestant.load(input);
  figures.loadSeconds = secondsSince(start);
  figures.rows = contestant.rows();
  figures.memory = residentBytes() - before;
  figures.peakMemory = peakResidentBytes() - before;

  start = std::chrono::steady_clock::now();
  for (const IpGenAddr& addr : input.addresses) {
    figures.foundRows = mixedIn(figures.foundRows, contestant.find(addr));
  }
  figures.lookupSeconds = secondsSince(start);

  // To a process of its own, which keeps the rows in a table of its own.
  netdb::RowSockets sockets;
  const pid_t subscriber = inChild([&] {
    sockets.publisher.close();
    const std::uint64_t received = Contestant::receive(sockets.subscriber.get());
    if (received != figures.rows) throw std::runtime_error("rows are missing");
  });
  sockets.subscriber.close();
  start = std::chrono::steady_clock::now();
  contestant.send(sockets.publisher.get());
  sockets.publisher.close();
  await(subscriber);
  figures.transferSeconds = secondsSince(start);
  return figures;
}

template <typename Contestant>
Figures measureInChild(const Input& input) {
  int ends[2];
  if (::pipe(ends) != 0) throw std::runtime_error("pipe");
  const pid_t child = inChild([&] {
    const Figures figures = measure<Contestant>(input);
    if (::write(ends[1], &figures, sizeof figures) != sizeof figures) {
      throw std::runtime_error("write");
    }
  });
  ::close(ends[1]);
  Figures figures;
  const bool complete = ::read(ends[0], &figures, sizeof figures) == sizeof figures;
  ::close(ends[0]);
  await(child);
  if (!complete) throw std::runtime_error("no figures");
  return figures;
}

void printTable(const Figures& korvo, const Figures& sqlite, double lookups) {
  const auto line = [](const char* name, double own, double other) {
    std::printf("| %s | %.0f | %.0f | %.2f |\n", name, own, other, own / other);
  };
  const auto ranges = static_cast<double>(korvo.ranges);
  const auto rows = static_cast<double>(korvo.rows);
  std::printf("%.0f ranges, %.0f rows\n\n", ranges, rows);
  std::printf("| | netdb | SQLite | netdb by SQLite |\n|---|---|---|---|\n");
  line("ranges loaded per second", ranges / korvo.loadSeconds, ranges / sqlite.loadSeconds);
  line("rows per second over the socket", rows / korvo.transferSeconds,
       rows / sqlite.transferSeconds);
  line("lookups per second", lookups / korvo.lookupSeconds, lookups / sqlite.lookupSeconds);
  line("bytes of memory per row", static_cast<double>(korvo.memory) / rows,
       static_cast<double>(sqlite.memory) / rows);
  line("bytes of memory per row, at most while loading",
       static_cast<double>(korvo.peakMemory) / rows, static_cast<double>(sqlite.peakMemory) / rows);
}

int run(int argc, char** argv) {
  Input input;
  std::size_t lookups = 1'000'000;
  for (int i = 1; i < argc; ++i) {
    if (std::string_view(argv[i]) == "--lookups" && i + 1 < argc) {
      lookups = std::strtoul(argv[++i], nullptr, 10);
    } else {
      input.paths.emplace_back(argv[i]);
    }
  }
  if (input.paths.empty()) {
    std::fprintf(stderr, "usage: netdb_sqlite [--lookups N] FILE...\n");
    return 2;
  }
  Korvo::rowOpsFactoryIs(netdb::makeRowOps);
  input.addresses = someAddresses(input, lookups);
  const Figures korvo = measureInChild<RowsInTable>(input);
  const Figures sqlite = measureInChild<Sqlite>(input);
  if (korvo.rows != sqlite.rows || korvo.foundRows != sqlite.foundRows) {
    std::fprintf(stderr, "netdb_sqlite: the tables differ\n");
    return 1;
  }
  printTable(korvo, sqlite, static_cast<double>(lookups));
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return run(argc, argv);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "netdb_sqlite: %s\n", e.what());
    return 1;
  }
}

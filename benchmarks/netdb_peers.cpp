// The demonstration's table beside what people would use instead: SQLite, which holds the same rows
// in memory with an index, Redis, which holds them in a hash, and bare packets. How fast ranges are
// loaded, how fast a fresh subscriber gets the rows over a socket, how fast addresses are looked
// up, and in how much memory.
//
//   netdb_peers [--lookups N] FILE...
//
// Each contestant works in processes of its own, so that none disturbs another's memory. The
// program fails unless netdb and SQLite find the same range for every address, and every subscriber
// gets all rows.

#include <Korvo/Batch.h>
#include <Korvo/EventLoop.h>
#include <Korvo/TablePublisher.h>
#include <Korvo/TableReader.h>
#include <Korvo/TableSubscriber.h>
#include <malloc.h>
#include <sqlite3.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
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

#include "packetLink.h"
#include "redis_peer.h"
#include "rowSource.h"

namespace {

using Korvo::IpGenAddr;
using Korvo::IpGenPrefix;
using netdb::PrefixRow;
using peers::Folder;
using peers::Redis;
using peers::RedisServer;
using peers::Reply;

// ---------------------------------------------------------------------------------------------
// What is measured

/// The median of these many transfers counts.
constexpr int transfers = 3;

struct Figures {
  std::uint64_t ranges = 0;
  std::uint64_t rows = 0;
  double loadSeconds = 0;
  double writeSeconds = 0;     // until the server had the rows, if it is another process
  double transferSeconds = 0;  // from there to a fresh subscriber
  double lookupSeconds = 0;
  std::uint64_t memory = 0;
  std::uint64_t peakMemory = 0;  // while the ranges were loaded
  std::uint64_t found = 0;       // depends on every range that was found, and on their order
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

std::uint64_t mixedIn(std::uint64_t sum, std::uint64_t line) {
  return (sum ^ line) * 0x9E3779B97F4A7C15;
}

// ---------------------------------------------------------------------------------------------
// Processes

/// Runs `work` in a child process.
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
    std::fprintf(stderr, "netdb_peers: %s\n", e.what());
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

/// What a child process works out.
template <typename Result, typename Work, typename Meanwhile>
Result resultOf(const Work& work, const Meanwhile& meanwhile) {
  int ends[2];
  if (::pipe(ends) != 0) throw std::runtime_error("pipe");
  const pid_t child = inChild([&] {
    const Result result = work();
    if (::write(ends[1], &result, sizeof result) != sizeof result) {
      throw std::runtime_error("write");
    }
    ::_exit(0);  // what has been measured need not be cleared away
  });
  ::close(ends[1]);
  meanwhile(child);
  Result result;
  const bool isComplete = ::read(ends[0], &result, sizeof result) == sizeof result;
  ::close(ends[0]);
  if (!isComplete) throw std::runtime_error("a process has failed");
  return result;
}

/// How long it takes from `start` until a receiver process has all rows. What `receive` returns has
/// them: how many, in its `rows()`, and is destroyed when the clock has been read.
template <typename Receive, typename Meanwhile>
double receiveSeconds(std::chrono::steady_clock::time_point start, std::uint64_t rows,
                      const Receive& receive, const Meanwhile& meanwhile) {
  return resultOf<double>(
      [&] {
        const auto received = receive();
        const double seconds = secondsSince(start);
        if (received->rows() != rows) throw std::runtime_error("rows are missing");
        return seconds;
      },
      meanwhile);
}

/// Rows in an array, one behind the other.
class PlainRows {
 public:
  /// Keeps it if it is a row.
  void add(const Korvo::byte_t* bytes, std::size_t length) {
    if (Korvo::checkRow<netdb::PrefixLayout>(bytes, length)) return;
    bytes_.insert(bytes_.end(), bytes, bytes + length);
    ++rows_;
  }
  std::uint64_t rows() const { return rows_; }

 private:
  std::vector<Korvo::byte_t> bytes_;
  std::uint64_t rows_ = 0;
};

double median(std::array<double, transfers> times) {
  std::sort(times.begin(), times.end());
  return times[transfers / 2];
}

/// Calls `use` with each row of the input.
template <typename Use>
std::uint64_t forEachRow(const Input& input, const Use& use) {
  netdb::RowSource source(input.paths,
                          [](const std::string&, std::uint32_t, const std::string&) {});
  std::uint64_t rows = 0;
  for (PrefixRow row; source.next(row); ++rows) use(row);
  return rows;
}

// ---------------------------------------------------------------------------------------------
// Tables

class RowsInTable {
 public:
  std::uint64_t load(const Input& input) {
    Korvo::Batch batch(table_);
    std::uint32_t line = 0;
    bool ipv6 = false;
    std::uint64_t ranges = 0;
    forEachRow(input, [&](const PrefixRow& row) {
      if (row.get<"line">() != line || row.get<"ipv6">() != ipv6) ++ranges;
      line = row.get<"line">();
      ipv6 = row.get<"ipv6">();
      batch.put(row);
    });
    batch.commit();
    table_.longestPrefix<"prefix">();
    return ranges;
  }

  std::uint64_t rows() const { return table_.size(); }

  /// The line of the range, 0 if there is none.
  std::uint64_t find(const IpGenAddr& addr) {
    const PrefixRow row = table_.longestPrefix<"prefix">().find(addr);
    return row.isNull() ? 0 : row.get<"line">();
  }

  double transferSeconds() {
    const Folder folder;
    const std::string address = "unix:" + folder.socket();
    const auto loop = std::make_shared<Korvo::EventLoop>("publisher");
    Korvo::TablePublisher publisher("netdb", loop);
    publisher.add(table_);
    publisher.listen(address);
    std::array<double, transfers> times;
    for (double& time : times) {
      time = receiveSeconds(
          std::chrono::steady_clock::now(), rows(),
          [&] { return std::make_unique<Subscription>(address); },
          [&](pid_t subscriber) {
            while (::waitpid(subscriber, nullptr, WNOHANG) == 0) loop->run(0, 0.01, false);
          });
    }
    return median(times);
  }

 private:
  /// A copy of the table, once it is complete.
  class Subscription {
   public:
    explicit Subscription(const std::string& address) : subscriber_(address, loop_) {
      subscriber_.add(table_);
      reader_.onState([this](Korvo::TableState state, const std::string&) {
        if (state != Korvo::TableState::loading) loop_->activeIs(false);
      });
      loop_->activeIs(true);
      loop_->run();
    }
    std::uint64_t rows() const { return table_.size(); }

   private:
    std::shared_ptr<Korvo::EventLoop> loop_ = std::make_shared<Korvo::EventLoop>("subscriber");
    netdb::PrefixTable table_{netdb::prefixTable};
    Korvo::TableSubscriber subscriber_;
    Korvo::TableReader<PrefixRow> reader_{table_, loop_, [](const Korvo::Changes<PrefixRow>&) {}};
  };

  netdb::PrefixTable table_{netdb::prefixTable};
};

/// Each row a packet, which the receiver checks and keeps behind the one before.
Figures measurePackets(const Input& input) {
  std::vector<PrefixRow> rows;
  Figures figures;
  figures.rows = forEachRow(input, [&](const PrefixRow& row) { rows.push_back(row); });
  std::array<double, transfers> times;
  for (double& time : times) {
    bench::RowSockets sockets;
    const auto receive = [&] {
      sockets.publisher.close();
      bench::RowReceiver receiver(sockets.subscriber.get());
      auto kept = std::make_unique<PlainRows>();
      while (receiver.receive()) {
        for (const auto& packet : receiver.packets()) kept->add(packet.bytes, packet.length);
      }
      return kept;
    };
    const auto send = [&](pid_t receiver) {
      sockets.subscriber.close();
      bench::RowSender sender(sockets.publisher.get());
      for (const PrefixRow& row : rows) sender.add(row);
      sender.send();
      sockets.publisher.close();
      await(receiver);
    };
    time = receiveSeconds(std::chrono::steady_clock::now(), figures.rows, receive, send);
  }
  figures.transferSeconds = median(times);
  return figures;
}

// ---------------------------------------------------------------------------------------------
// Redis

std::string_view bytesOf(const PrefixRow& row) {
  return {reinterpret_cast<const char*>(row.rowBuf()), row.rowLength()};
}

/// Reads the hash back, and checks and keeps its rows as a receiver of packets does.
std::unique_ptr<PlainRows> receiveFromRedis(const std::string& socket) {
  Redis redis(socket);
  auto kept = std::make_unique<PlainRows>();
  std::string cursor = "0";
  do {
    redis.append({"HSCAN", "netdb", cursor, "COUNT", "1000"});
    const Reply reply = redis.reply();
    cursor = reply->element[0]->str;
    const redisReply& fields = *reply->element[1];
    for (std::size_t i = 1; i < fields.elements; i += 2) {
      const redisReply& row = *fields.element[i];
      kept->add(reinterpret_cast<const Korvo::byte_t*>(row.str), row.len);
    }
  } while (cursor != "0");
  return kept;
}

Figures measureRedis(const Input& input) {
  constexpr std::uint64_t pipelined = 1000;
  std::vector<PrefixRow> rows;
  Figures figures;
  figures.rows = forEachRow(input, [&](const PrefixRow& row) { rows.push_back(row); });
  const RedisServer server;
  Redis redis(server.socket());
  auto start = std::chrono::steady_clock::now();
  std::uint64_t unanswered = 0;
  for (const PrefixRow& row : rows) {
    const Korvo::oid_t oid = row.rowOid();
    redis.append(
        {"HSET", "netdb", {reinterpret_cast<const char*>(&oid), sizeof oid}, bytesOf(row)});
    if (++unanswered < pipelined) continue;
    for (; unanswered != 0; --unanswered) redis.reply();
  }
  for (; unanswered != 0; --unanswered) redis.reply();
  figures.writeSeconds = secondsSince(start);
  std::array<double, transfers> times;
  for (double& time : times) {
    time = receiveSeconds(
        std::chrono::steady_clock::now(), figures.rows,
        [&] { return receiveFromRedis(server.socket()); }, await);
  }
  figures.transferSeconds = median(times);
  return figures;
}

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
        "select line, last >= ?1 from prefix where first <= ?1 order by first desc limit 1");
    return ranges;
  }

  std::uint64_t rows() const { return rows_; }

  std::uint64_t find(const IpGenAddr& addr) {
    find_->bind(1, addr);
    std::uint64_t line = 0;
    if (find_->step() && sqlite3_column_int(find_->get(), 1) != 0) {
      line = static_cast<std::uint64_t>(sqlite3_column_int64(find_->get(), 0));
    }
    find_->reset();
    return line;
  }

  double transferSeconds() const {
    std::array<double, transfers> times;
    for (double& time : times) {
      bench::RowSockets sockets;
      time = receiveSeconds(
          std::chrono::steady_clock::now(), rows_,
          [&] {
            sockets.publisher.close();
            return receive(sockets.subscriber.get());
          },
          [&](pid_t receiver) {
            sockets.subscriber.close();
            send(sockets.publisher.get());
            sockets.publisher.close();
            await(receiver);
          });
    }
    return median(times);
  }

 private:
  static constexpr std::size_t batch = 128;

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

  static std::unique_ptr<Sqlite> receive(int socket) {
    auto copy = std::make_unique<Sqlite>();
    bench::RowReceiver receiver(socket);
    copy->execute("begin");
    while (receiver.receive()) {
      for (const auto& packet : receiver.packets()) copy->insert({packet.bytes, packet.length});
    }
    copy->execute("commit");
    return copy;
  }

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
    figures.found = mixedIn(figures.found, contestant.find(addr));
  }
  figures.lookupSeconds = secondsSince(start);

  figures.transferSeconds = contestant.transferSeconds();
  return figures;
}

Figures measureInChild(Figures (*measured)(const Input&), const Input& input) {
  return resultOf<Figures>([&] { return measured(input); }, await);
}

struct All {
  Figures korvo;
  Figures sqlite;
  Figures redis;
  Figures packets;
};

void printTable(const All& all, double lookups) {
  const auto ranges = static_cast<double>(all.korvo.ranges);
  const auto rows = static_cast<double>(all.korvo.rows);
  std::printf("%.0f ranges, %.0f rows\n\n", ranges, rows);
  std::printf("| | netdb | SQLite | netdb by SQLite |\n|---|---|---|---|\n");
  const auto line = [&](const char* name, auto figure) {
    const double own = figure(all.korvo);
    const double other = figure(all.sqlite);
    std::printf("| %s | %.0f | %.0f | %.2f |\n", name, own, other, own / other);
  };
  line("ranges loaded per second", [&](const Figures& f) { return ranges / f.loadSeconds; });
  line("lookups per second", [&](const Figures& f) { return lookups / f.lookupSeconds; });
  line("bytes of memory per row",
       [&](const Figures& f) { return static_cast<double>(f.memory) / rows; });
  line("bytes of memory per row, at most while loading",
       [&](const Figures& f) { return static_cast<double>(f.peakMemory) / rows; });

  std::printf("\n| rows to a fresh subscriber | seconds | netdb by it |\n|---|---|---|\n");
  const double own = all.korvo.transferSeconds;
  const auto transfer = [&](const char* name, double seconds) {
    std::printf("| %s | %.2f | %.2f |\n", name, seconds, own / seconds);
  };
  transfer("netdb", own);
  transfer("bare packets", all.packets.transferSeconds);
  transfer("SQLite, packed in packets and inserted", all.sqlite.transferSeconds);
  transfer("Redis, read back", all.redis.transferSeconds);
  transfer("Redis, set and read back", all.redis.writeSeconds + all.redis.transferSeconds);
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
    std::fprintf(stderr, "usage: netdb_peers [--lookups N] FILE...\n");
    return 2;
  }
  input.addresses = someAddresses(input, lookups);
  const All all{measureInChild(measure<RowsInTable>, input), measureInChild(measure<Sqlite>, input),
                measureInChild(measureRedis, input), measureInChild(measurePackets, input)};
  if (all.korvo.rows != all.sqlite.rows || all.korvo.found != all.sqlite.found) {
    std::fprintf(stderr, "netdb_peers: the tables differ\n");
    return 1;
  }
  printTable(all, static_cast<double>(lookups));
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return run(argc, argv);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "netdb_peers: %s\n", e.what());
    return 1;
  }
}

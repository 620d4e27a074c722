// The other holder of a row's buffer lets go of it at any moment of a write, as it may on another
// thread. The write is run one machine instruction at a time, and the other holder lets go behind
// each conditional jump in turn: whatever the write has decided by then, the row is written, or it
// is as it was.

#include "failing_allocator.h"

#if KORVO_FAILING_ALLOCATOR

#include "row_test_support.h"

#include <Korvo/TableRow.h>

#include <pthread.h>
#include <semaphore.h>
#include <ucontext.h>

#include <csignal>
#include <optional>

namespace {

using namespace rowtest;
using alloctest::Failing;
using alloctest::FailureScope;
using Korvo::Column;
using Korvo::RowLayout;
using Korvo::RowWriter;
using Korvo::TableRow;

#ifdef __x86_64__
constexpr int instructionRegister = REG_RIP;
#else
constexpr int instructionRegister = REG_EIP;
#endif
constexpr greg_t trapFlag = 0x100;

/// What the signal handler works with.
struct Stepping {
  unsigned untilLettingGo = 0;
  BaseRow* other = nullptr;
  bool ends = false;
  bool atJump = false;  ///< the instruction that ran last is a conditional jump
};
Stepping stepping;

bool isConditionalJump(const byte_t* instruction) {
  const byte_t first = instruction[0];
  return (first & 0xF0) == 0x70 || (first == 0x0F && (instruction[1] & 0xF0) == 0x80);
}

/// Comes behind each instruction while the trap flag is set.
void onStep(int, siginfo_t*, void* context) {
  greg_t* const registers = static_cast<ucontext_t*>(context)->uc_mcontext.gregs;
  greg_t& flags = registers[REG_EFL];
  flags &= ~trapFlag;
  if (stepping.ends) return;
  // What comes behind the failure is of no interest, and long.
  if (alloctest::allocator.failing != Failing::never && alloctest::allocator.failures != 0) return;
  const bool behindJump = stepping.atJump;
  stepping.atJump =
      isConditionalJump(reinterpret_cast<const byte_t*>(registers[instructionRegister]));
  if (behindJump && stepping.untilLettingGo-- == 0) {
    stepping.other->nullifyRow();
    return;
  }
  flags |= trapFlag;
}

/// With a second thread use counts change atomically, here as they do where rows are shared. It has
/// started, and allocates no more, when it has been made.
class SecondThread {
 public:
  SecondThread() {
    sem_init(&started_, 0, 0);
    sem_init(&end_, 0, 0);
    pthread_create(
        &thread_, nullptr,
        [](void* self) -> void* {
          auto& thread = *static_cast<SecondThread*>(self);
          sem_post(&thread.started_);
          wait(thread.end_);
          return nullptr;
        },
        this);
    wait(started_);
  }
  ~SecondThread() {
    sem_post(&end_);
    pthread_join(thread_, nullptr);
    sem_destroy(&end_);
    sem_destroy(&started_);
  }
  SecondThread(const SecondThread&) = delete;
  SecondThread& operator=(const SecondThread&) = delete;

 private:
  static void wait(sem_t& semaphore) {
    while (sem_wait(&semaphore) != 0) {
    }
  }

  sem_t started_{};
  sem_t end_{};
  pthread_t thread_{};
};

class StepHandler {
 public:
  StepHandler() {
    struct sigaction action = {};
    action.sa_sigaction = onStep;
    action.sa_flags = SA_SIGINFO;
    sigaction(SIGTRAP, &action, &before_);
  }
  ~StepHandler() { sigaction(SIGTRAP, &before_, nullptr); }
  StepHandler(const StepHandler&) = delete;
  StepHandler& operator=(const StepHandler&) = delete;

 private:
  struct sigaction before_ = {};
};

using Layout = RowLayout<7, Column<"name", std::string, PlainRow::kName>,
                         Column<"list", std::vector<std::string>, PlainRow::kList>,
                         Column<"end", std::uint32_t, PlainRow::kBase - 4>>;
static_assert(Layout::baseLength == PlainRow::kBase);

/// Gives a row a buffer whose memory stays while the test looks at it, so that whoever lets go of
/// it in the signal handler frees nothing there.
template <typename Row>
class Kept : public Row {
 public:
  explicit Kept(const Bytes& image) {
    auto* const block = static_cast<byte_t*>(std::malloc(image.size()));
    if (block == nullptr) throw std::bad_alloc();
    std::memcpy(block, image.data(), image.size());
    this->rowBuf_ = Korvo::KoPtr<KoRowBuf>(new KoRowBuf(block), [](KoRowBuf* owner) {
      (released != nullptr ? releasedToo : released) = owner;
    });
    watch_ = this->rowBuf_;
  }
  Kept(const Kept&) = delete;
  Kept& operator=(const Kept&) = delete;
  ~Kept() override {
    this->rowBuf_.reset();
    delete std::exchange(released, nullptr);
    delete std::exchange(releasedToo, nullptr);
  }

 private:
  static inline KoRowBuf* released = nullptr;
  static inline KoRowBuf* releasedToo = nullptr;
  std::weak_ptr<KoRowBuf> watch_;
};

Bytes startImage() {
  Bytes image = imageWith(PlainRow::kName, bytesOfString("a name"));
  storeField<std::uint16_t>(image.data() + 2, 7);
  storeField<oid_t>(image.data() + 4, 1001);
  return image;
}

/// Runs `write` on a row that shares its buffer, with the other holder letting go behind
/// conditional jump 0, 1, 2, ... and with allocation `failing` failing, if any.
template <typename Row, typename Write>
void expectWrittenOrAsBefore(const Write& write, std::optional<unsigned> failing) {
  std::string expected;
  {
    // The first time also makes what stays for good, such as a table's list of slots.
    Kept<Row> undisturbed(startImage());
    BaseRow other;
    other.shareContents(undisturbed);
    write(undisturbed);
    expected = hex(undisturbed);
  }
  const SecondThread thread;
  const StepHandler handler;
  bool letGo = true;
  unsigned steps = 0;
  for (; letGo; ++steps) {
    SCOPED_TRACE("behind jump " + std::to_string(steps));
    Kept<Row> row(startImage());
    BaseRow other;
    other.shareContents(row);
    const std::string before = hex(row);
    const byte_t* const buf = row.rowBuf();
    stepping = {steps, &other};
    bool outOfMemory = false;
    {
      std::optional<FailureScope> scope;
      if (failing) scope.emplace(*failing, Failing::fromThenOn);
      raise(SIGTRAP);
      try {
        write(row);
      } catch (const std::bad_alloc&) {
        outOfMemory = true;
      }
      stepping.ends = true;
    }
    letGo = other.isNull();
    ASSERT_FALSE(row.isNull());
    if (outOfMemory) {
      ASSERT_EQ(hex(row), before);
      ASSERT_EQ(row.rowBuf(), buf);
      write(row);
    }
    ASSERT_EQ(hex(row), expected);
  }
  EXPECT_GT(steps, 5u) << "the write was not run step by step";
}

/// With memory, and without. The address sanitizer's own allocator has too many steps.
template <typename Row, typename Write>
void expectWrittenOrAsBefore(const Write& write) {
  {
    SCOPED_TRACE("without memory");
    expectWrittenOrAsBefore<Row>(write, 0);
  }
#ifndef KORVO_ADDRESS_SANITIZER
  {
    SCOPED_TRACE("with memory");
    expectWrittenOrAsBefore<Row>(write, std::nullopt);
  }
  for (const unsigned failing : {1u, 2u}) {
    SCOPED_TRACE("with memory for the first allocations only: " + std::to_string(failing));
    expectWrittenOrAsBefore<Row>(write, failing);
  }
#endif
}

constexpr len_t base = PlainRow::kBase;
const std::string longer = "a name that is longer";

template <typename Row>
class OtherHolderLetsGo : public testing::Test {};
using RowClasses = testing::Types<PlainRow, FullRow>;
TYPED_TEST_SUITE(OtherHolderLetsGo, RowClasses, );

TYPED_TEST(OtherHolderLetsGo, WhileAValueIsWritten) {
  expectWrittenOrAsBefore<TypeParam>(
      [](BaseRow& row) { row.setColumn<std::string>(PlainRow::kName, longer, base); });
}

TYPED_TEST(OtherHolderLetsGo, WhileAValueIsWrittenInPlace) {
  static const std::string shorter = "name";
  expectWrittenOrAsBefore<TypeParam>(
      [](BaseRow& row) { row.setColumn<std::string>(PlainRow::kName, shorter, base); });
}

TYPED_TEST(OtherHolderLetsGo, WhileAnArrayIsWritten) {
  static const std::vector<std::string> texts = {"one", "two", "three"};
  expectWrittenOrAsBefore<TypeParam>(
      [](BaseRow& row) { row.setColumn<std::string>(PlainRow::kList, texts, base); });
}

TYPED_TEST(OtherHolderLetsGo, WhileBooleansAreWritten) {
  static const std::vector<bool> flags(20, true);
  expectWrittenOrAsBefore<TypeParam>(
      [](BaseRow& row) { row.updateFixElemArray<bool>(PlainRow::kList, base, flags); });
}

TYPED_TEST(OtherHolderLetsGo, WhileAColumnIsCopied) {
  static const PlainRow source(imageWith(PlainRow::kAddr, Bytes(30, 1)));
  expectWrittenOrAsBefore<TypeParam>(
      [](BaseRow& row) { row.copyVarColumn(PlainRow::kAddr, source, PlainRow::kName, base); });
}

TYPED_TEST(OtherHolderLetsGo, WhileAColumnOfTheRowItselfIsCopied) {
  expectWrittenOrAsBefore<TypeParam>(
      [](BaseRow& row) { row.copyVarColumn(PlainRow::kName, row, PlainRow::kList, base); });
}

TYPED_TEST(OtherHolderLetsGo, WhileAValueOfTheRowItselfIsWritten) {
  expectWrittenOrAsBefore<TypeParam>([](BaseRow& row) {
    StringValueReference name;
    row.getColumn(PlainRow::kName, name);
    row.setColumn<StringValueReference>(PlainRow::kList, name, base);
  });
}

TYPED_TEST(OtherHolderLetsGo, WhileAColumnIsCleared) {
  static const std::string nothing;
  expectWrittenOrAsBefore<TypeParam>(
      [](BaseRow& row) { row.setColumn<std::string>(PlainRow::kName, nothing, base); });
}

TYPED_TEST(OtherHolderLetsGo, WhileTheRowIsCleared) {
  expectWrittenOrAsBefore<TypeParam>([](BaseRow& row) { row.clearRow(); });
}

TYPED_TEST(OtherHolderLetsGo, WhileAWriterWrites) {
  expectWrittenOrAsBefore<TypeParam>(
      [](BaseRow& row) { RowWriter(row, base).setColumn(PlainRow::kName, longer); });
}

TYPED_TEST(OtherHolderLetsGo, WhileAWriterWritesAnArray) {
  static const std::vector<std::string> texts = {"one", "two", "three"};
  expectWrittenOrAsBefore<TypeParam>(
      [](BaseRow& row) { RowWriter(row, base).setColumn(PlainRow::kList, texts); });
}

TEST(OtherHolderLetsGoOfADeclaredRow, WhileAValueIsWritten) {
  expectWrittenOrAsBefore<TableRow<Layout>>([](TableRow<Layout>& row) { row.set<"name">(longer); });
}

TEST(OtherHolderLetsGoOfADeclaredRow, WhileAnArrayIsWritten) {
  static const std::vector<std::string> texts = {"one", "two", "three"};
  expectWrittenOrAsBefore<TableRow<Layout>>([](TableRow<Layout>& row) { row.set<"list">(texts); });
}

TEST(OtherHolderLetsGoOfADeclaredRow, WhileANumberIsWritten) {
  expectWrittenOrAsBefore<TableRow<Layout>>([](TableRow<Layout>& row) { row.set<"end">(7); });
}

TEST(OtherHolderLetsGoOfADeclaredRow, WhileItsWriterWrites) {
  expectWrittenOrAsBefore<TableRow<Layout>>([](TableRow<Layout>& row) {
    auto writer = row.writer();
    writer.set<"name">(longer);
  });
}

}  // namespace

#endif  // KORVO_FAILING_ALLOCATOR

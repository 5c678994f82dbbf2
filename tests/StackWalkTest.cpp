// The walk on stacks and tables that lead nowhere. The harness that crashes compares walks from any instruction.
#include "ErrorHandlerDll/unwind/StackWalk.h"

#include "ErrorHandlerDll/crash/Dump.h"
#include "ErrorHandlerDll/unwind/CallFrameInfo.h"
#include "ErrorHandlerDll/unwind/FrameTable.h"
#include "ErrorHandlerDll/unwind/LoadedObjects.h"
#include "support/LogTest.h"

#include <cstring>
#include <iterator>
#include <memory>
#include <random>
#include <sys/syscall.h>
#include <thread>
#include <ucontext.h>
#include <utility>
#include <vector>

namespace
{

// Calls of code whose tables lead back by the frame pointer, of code that finds the same frame by expressions, as
// compilers write them where a frame is aligned, and of code without any.
extern "C" const char gAfterCall[];
extern "C" const char gAfterCallWithExpressions[];
extern "C" const char gAfterCallWithoutTables[];
asm(R"(
    .pushsection .text
    .cfi_startproc
    .cfi_def_cfa %rbp, 16
    .cfi_offset %rbp, -16
    callq *%rsi
gAfterCall:
    retq
    .cfi_endproc
    .cfi_startproc
    .cfi_escape 0x0f, 3, 0x76, 0x78, 0x06 # where the frame ends, stands at %rbp - 8
    .cfi_escape 0x10, 6, 2, 0x76, 0       # %rbp lies at %rbp
    callq *%rsi
gAfterCallWithExpressions:
    retq
    .cfi_endproc
    callq *0x12345678(%rip)
gAfterCallWithoutTables:
    nop
    .popsection
)");

// What a signal handler returns to. A walk that starts there goes on in the context above it.
constexpr unsigned char kTrampoline[] = {0x48, 0xc7, 0xc0, 0x0f, 0x00, 0x00, 0x00, 0x0f, 0x05};

std::uint64_t AddressOf(const void* place)
{
    return reinterpret_cast<std::uint64_t>(place);
}

// A chain of frames, each found by the frame pointer that the one before has saved.
TEST(StackWalk, FollowsOtherStacksButNeverBack)
{
    const std::uint64_t afterCall = AddressOf(gAfterCall);
    const std::uint64_t withExpressions = AddressOf(gAfterCallWithExpressions);
    const std::uint64_t withoutTables = AddressOf(gAfterCallWithoutTables);
    constexpr int kAll = 0;
    const struct
    {
        const char* name;
        std::vector<std::size_t> frames; // positions in words, from the stack pointer of the first on
        int count;
        std::uint64_t returnAddress = AddressOf(gAfterCall); // of the frames
        std::uint64_t interrupted = AddressOf(gAfterCall);
    } rows[] = {
        {"one stack", {2000, 2010, 2020}, kAll},
        {"frames that only expressions find", {2000, 2010, 2020}, kAll, withExpressions, withExpressions},
        {"a function that has given up its frame", {2000, 1998, 2010}, kAll},
        {"a stack above", {2000, 2010, 9000, 9010}, kAll},
        {"a stack below", {2000, 2010, 100, 110}, kAll},
        {"below, then back above", {2000, 2010, 100, 110, 9000}, kAll},
        {"back to a stack that was left", {2000, 2010, 100, 2004}, 3},
        {"back to the frame before", {2000, 2010, 2020, 2010}, 3},
        {"the same frame", {2000, 2010, 2010}, 2},
        {"what returned calls have left", {2000, 2010, 1980, 1990}, 2},
        {"a stack below, to what is no return address", {2000, 2010, 100, 110}, 2, afterCall + 1, afterCall},
        {"switches without end",
         {20000, 19000, 18000, 17000, 16000, 15000, 14000, 13000, 12000, 11000, 10000, 9000, 8000, 7000, 6000, 5000, 4000,
          3000},
         15},
        {"frame pointers without tables", {2000, 2010, 2020}, 2, withoutTables, withoutTables},
        {"the same to a stack below", {2000, 2010, 100}, 2, withoutTables, withoutTables},
        {"called null", {2000, 2010, 2020}, 3, afterCall, 0},
        {"called what is not there", {2000, 2010, 2020}, 3, afterCall, 0x1234},
    };
    for (const auto& row : rows)
    {
        std::vector<std::uint64_t> stack(21000);
        for (const std::size_t frame : row.frames)
        {
            stack[frame - 1] = AddressOf(&stack[frame + 2]);
        }
        stack[row.frames[0]] = row.returnAddress;
        for (std::size_t i = row.frames.size() - 2; i > 0; --i)
        {
            stack[row.frames[i]] = AddressOf(&stack[row.frames[i + 1]]);
            stack[row.frames[i] + 1] = row.returnAddress;
        }
        ucontext_t context = {};
        context.uc_mcontext.gregs[REG_RIP] = static_cast<greg_t>(row.interrupted);
        context.uc_mcontext.gregs[REG_RSP] = static_cast<greg_t>(AddressOf(&stack[row.frames[0]]));
        context.uc_mcontext.gregs[REG_RBP] = static_cast<greg_t>(AddressOf(&stack[row.frames[1]]));
        Unwind::FrameRegisters trampoline;
        trampoline.Set(Unwind::FrameRegisters::kProgramCounter, AddressOf(kTrampoline));
        trampoline.Set(Unwind::FrameRegisters::kStackPointer, AddressOf(&context));
        void* frames[100];
        const Unwind::WalkResult result = Unwind::WalkStack(trampoline, frames, static_cast<int>(std::size(frames)));
        EXPECT_EQ(result.count - 1, row.count == kAll ? static_cast<int>(row.frames.size()) - 1 : row.count) << row.name;
        EXPECT_EQ(result.reachedEnd, row.count == kAll) << row.name;
    }
}

// Two functions of a copy of this program, whose tables lie as they do in the program.
TEST(StackWalk, EndsOnDamagedTables)
{
    Unwind::MemoryReader memory;
    Unwind::ElfObject object;
    ASSERT_TRUE(Unwind::FindObject(memory, AddressOf(gAfterCall), object));
    std::vector<unsigned char> copy(object.end - object.start);
    ASSERT_TRUE(memory.Read(object.start, copy.data(), copy.size()));
    const std::uint64_t moved = AddressOf(copy.data()) - object.start;
    const std::uint64_t header = object.unwindHeader + moved;
    const std::uint64_t functions[] = {AddressOf(gAfterCall) + moved, AddressOf(gAfterCallWithExpressions) + moved};
    std::mt19937_64 random(1);
    int unwound = 0;
    for (int round = 0; round < 20000; ++round)
    {
        const std::uint64_t address = functions[round % 2];
        Unwind::FrameEntry entry;
        ASSERT_TRUE(Unwind::FindFrameEntry(*std::make_unique<Unwind::MemoryReader>(), header, address, entry));
        const std::uint64_t parts[] = {header, entry.commonInstructions - 16, entry.instructions - 20};
        auto& damaged = *reinterpret_cast<unsigned char*>(parts[random() % 3] + random() % 40);
        const unsigned char before = std::exchange(damaged, static_cast<unsigned char>(random()));
        Unwind::FrameRegisters registers;
        for (unsigned i = 0; i < Unwind::FrameRegisters::kCount; ++i)
        {
            registers.Set(i, random() % 2 == 0 ? random() : AddressOf(&copy[copy.size() / 2]));
        }
        const auto result = Unwind::UnwindFrame(*std::make_unique<Unwind::MemoryReader>(), header, address, registers);
        unwound += result == Unwind::UnwindResult::UNWOUND ? 1 : 0;
        damaged = before;
    }
    EXPECT_TRUE(unwound > 1000 && unwound < 19000) << unwound;
}

TEST(StackWalk, ABrokenWalkMayHaveMissedASignalHandler)
{
    Crash::CallStack broken = {{}, nullptr, 0};
    broken.start.Set(Unwind::FrameRegisters::kProgramCounter, AddressOf(gAfterCallWithoutTables));
    EXPECT_TRUE(Crash::FindSignalHandlers(&broken).isInOne);
}

TEST(StackWalk, WorksAfterTheMainThreadHasEnded)
{
    const auto walkAfterThisThread = []
    {
        const auto walk = [main = pthread_self()]
        {
            pthread_join(main, nullptr);
            _exit(Crash::FindSignalHandlers().isInOne ? 1 : 0);
        };
        std::thread(walk).detach();
        return syscall(SYS_exit, 0); // not pthread_exit: it unwinds through the test framework
    };
    EXPECT_EQ(RunChild(walkAfterThisThread), 0);
}

} // namespace

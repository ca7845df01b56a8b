// files_bench.cpp: reading, writing and copying files that the system holds in memory.

#include <fcntl.h>
#include <sys/stat.h>
#include <traiklofox/files.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "support/floor.h"
#include "support/temp_dir.h"

namespace traiklofox::bench {
namespace {

constexpr DWORD kBlock = 4096;  // the blocks are aligned to it: how they lie decides what copying them takes
constexpr int kBlocks = 256;
constexpr size_t kCopied = size_t{256} << 20;

struct HandleCloser {
    void operator()(Handle* handle) const { CloseHandle(handle); }
};

/// A file of `kBlocks` blocks, open for reading and writing.
class OpenFile {
  public:
    OpenFile() {
        test::writeText(directory_ / "file", std::string(size_t{kBlock} * kBlocks, 'x'));
        handle_.reset(CreateFile((directory_ / "file").c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                                 OPEN_EXISTING, 0, nullptr));
    }
    Handle* handle() const { return handle_.get(); }
    int descriptor() const { return static_cast<File*>(handle())->GetFd(); }

  private:
    const test::TempDir directory_;
    std::unique_ptr<Handle, HandleCloser> handle_;
};

void countBlocks(benchmark::State& state) {
    state.SetBytesProcessed(state.iterations() * kBlock * kBlocks);
}

void readFile(benchmark::State& state) {
    const OpenFile file;
    alignas(kBlock) char block[kBlock];
    DWORD done = 0;
    for (auto _ : state) {
        SetFilePointer(file.handle(), 0, nullptr, FILE_BEGIN);
        for (int i = 0; i < kBlocks; ++i)
            benchmark::DoNotOptimize(ReadFile(file.handle(), block, kBlock, &done, nullptr));
    }
    countBlocks(state);
}

void readDescriptor(benchmark::State& state) {
    const OpenFile file;
    alignas(kBlock) char block[kBlock];
    for (auto _ : state) {
        lseek(file.descriptor(), 0, SEEK_SET);
        for (int i = 0; i < kBlocks; ++i) benchmark::DoNotOptimize(read(file.descriptor(), block, kBlock));
    }
    countBlocks(state);
}

void writeFile(benchmark::State& state) {
    const OpenFile file;
    alignas(kBlock) const char block[kBlock] = {};
    DWORD done = 0;
    for (auto _ : state) {
        SetFilePointer(file.handle(), 0, nullptr, FILE_BEGIN);
        for (int i = 0; i < kBlocks; ++i)
            benchmark::DoNotOptimize(WriteFile(file.handle(), block, kBlock, &done, nullptr));
    }
    countBlocks(state);
}

void writeDescriptor(benchmark::State& state) {
    const OpenFile file;
    alignas(kBlock) const char block[kBlock] = {};
    for (auto _ : state) {
        lseek(file.descriptor(), 0, SEEK_SET);
        for (int i = 0; i < kBlocks; ++i) benchmark::DoNotOptimize(write(file.descriptor(), block, kBlock));
    }
    countBlocks(state);
}

/// The file that is copied, and where to; made once.
class Copied {
  public:
    static const Copied& get() {
        static const Copied copied;
        return copied;
    }
    const std::string& from() const { return from_; }
    const std::string& to() const { return to_; }

  private:
    Copied() {
        test::writeText(from_, std::string(kCopied, 'x'));
        test::writeText(to_,
                        std::string(kCopied, 'y'));  // both replace a file of this size, the first time too
    }
    const test::TempDir directory_;
    const std::string from_ = directory_ / "from";
    const std::string to_ = directory_ / "to";
};

void copyFile(benchmark::State& state) {
    const Copied& file = Copied::get();
    for (auto _ : state)
        if (!CopyFile(file.from().c_str(), file.to().c_str(), FALSE)) state.SkipWithError("not copied");
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(kCopied));
}

void readAndWrite(benchmark::State& state) {
    const Copied& file = Copied::get();
    for (auto _ : state) {
        const int from = open(file.from().c_str(), O_RDONLY);
        const int to = open(file.to().c_str(), O_WRONLY | O_TRUNC);
        struct stat status {};
        fstat(from, &status);
        std::vector<char> block(static_cast<size_t>(status.st_blksize));
        ssize_t got = 0;
        while ((got = read(from, block.data(), block.size())) > 0)
            if (write(to, block.data(), static_cast<size_t>(got)) != got) state.SkipWithError("not copied");
        close(to);
        close(from);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(kCopied));
}

const Comparison kRead{{
    .operation = "ReadFile: 256 blocks of 4 KiB",
    .body = readFile,
    .floor = "read",
    .floorBody = readDescriptor,
    .aim = 1.1,
}};
const Comparison kWrite{{
    .operation = "WriteFile: 256 blocks of 4 KiB",
    .body = writeFile,
    .floor = "write",
    .floorBody = writeDescriptor,
    .aim = 1.1,
}};
const Comparison kCopy{{
    .operation = "CopyFile: 256 MiB",
    .body = copyFile,
    .floor = "read and write preferred blocks",
    .floorBody = readAndWrite,
    .aim = 1.1,
    .configure =
        [](benchmark::internal::Benchmark& it) {
            it.Unit(benchmark::kMillisecond)->Iterations(1)->Repetitions(9);
        },
}};

}  // namespace
}  // namespace traiklofox::bench

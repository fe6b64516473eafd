// The two shared-memory helpers: what they attach, and how they end the process.

#include "ExanicMdImpl.h"
#include "system_calls.h"
#include "tests/support/child_process.h"
#include "tests/support/temp_dir.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <sstream>
#include <string>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <vector>

namespace {

using support::ChildRun;
using support::TempDir;
using testing::ElementsAre;

// A path of its own, hence a key of its own; the segment is removed at the end.
class SharedMemory : public testing::Test {
protected:
    ~SharedMemory() override {
        system_calls::reset();
        if (segment() != -1) {
            ::shmctl(segment(), IPC_RMID, nullptr);
        }
    }

    // The id of the segment that project id 82 and the path stand for, or -1.
    int segment() const { return ::shmget(::ftok(path.c_str(), 82), 0, 0); }

    TempDir dir;
    std::string path = dir.write("key", "");
};

std::vector<std::string> lines_of(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

TEST_F(SharedMemory, IsCreatedWithItsSizeForEveryone) {
    char* const address = create_shm(path.c_str(), 5000);
    ASSERT_NE(address, nullptr);
    ASSERT_NE(segment(), -1) << "the key is made of the path and the project id 82";
    shmid_ds status;
    ASSERT_EQ(::shmctl(segment(), IPC_STAT, &status), 0);
    EXPECT_EQ(status.shm_segsz, 5000U);
    EXPECT_EQ(status.shm_perm.mode & 0777U, 0777U);
    EXPECT_EQ(status.shm_nattch, 1U);
    address[0] = 'a';
    address[4999] = 'z';
    free_shm(address);
    ASSERT_EQ(::shmctl(segment(), IPC_STAT, &status), 0);
    EXPECT_EQ(status.shm_nattch, 0U);
}

TEST_F(SharedMemory, IsSharedByAllWhoAttachThePath) {
    char* const first = create_shm(path.c_str(), 4096);
    char* const second = create_shm(path.c_str(), 4096);
    EXPECT_NE(first, second);
    std::strcpy(first, "written through the first");
    EXPECT_STREQ(second, "written through the first");
    free_shm(first);
    EXPECT_STREQ(second, "written through the first");
    free_shm(second);
}

TEST_F(SharedMemory, OfAMissingPathEndsTheProcess) {
    const std::string missing = (dir.path() / "missing").string();
    const ChildRun run =
        support::run_child(dir.path(), [&] { (void)create_shm(missing.c_str(), 4096); });
    EXPECT_EQ(run.exit_status, 1);
    EXPECT_EQ(run.out, "");
    const std::vector<std::string> lines = lines_of(run.err);
    ASSERT_EQ(lines.size(), 3U) << run.err;
    EXPECT_EQ(lines[0], "failed to attach memory: No such file or directory");
}

TEST_F(SharedMemory, ThatCannotBeHadEndsTheProcess) {
    free_shm(create_shm(path.c_str(), 4096));
    // The segment exists and is smaller than what is asked for.
    const ChildRun run =
        support::run_child(dir.path(), [&] { (void)create_shm(path.c_str(), 100000); });
    EXPECT_EQ(run.exit_status, 1);
    const std::vector<std::string> lines = lines_of(run.err);
    ASSERT_EQ(lines.size(), 3U) << run.err;
    EXPECT_EQ(lines[0], "failed to access memory: Invalid argument");
}

TEST_F(SharedMemory, ThatCannotBeAttachedEndsTheProcessWithTheContactLineAlone) {
    const ChildRun key_failure =
        support::run_child(dir.path(), [&] { (void)create_shm("/does/not/exist", 4096); });
    const ChildRun run = support::run_child(dir.path(), [&] {
        system_calls::refuse_shmat(EACCES);
        (void)create_shm(path.c_str(), 4096);
    });
    EXPECT_EQ(run.exit_status, 1);
    // The last line of the other failures: whom to contact.
    EXPECT_THAT(lines_of(run.err), ElementsAre("failed to attach memory: Permission denied",
                                               lines_of(key_failure.err).back()));
}

TEST_F(SharedMemory, ThatWasNotAttachedCannotBeFreed) {
    char local[16] = {};
    const ChildRun run = support::run_child(dir.path(), [&] { free_shm(local); });
    EXPECT_EQ(run.exit_status, 1);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, "failed to free memory: Invalid argument\n");
}

} // namespace

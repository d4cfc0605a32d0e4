// The Linux serial layer on a real pseudo-terminal.
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <pthread.h>
#include <thread>
#include <chrono>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "platform/platform.h"
#include "support/helpers.h"
#include "support/pty.h"

using namespace ravik;
using namespace ravik::test;

namespace {
double elapsed_since(std::chrono::steady_clock::time_point t0)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

struct linux_serial : ::testing::Test {
    const platform_ops &os = platform_linux();
    void TearDown() override { platform_posix_reset(); }
};
} // namespace

TEST_F(linux_serial, OpenIsExclusiveAndNeverCreates)
{
    pty_pair pty;
    int32_t h = os.serial_open(pty.slave_path().c_str());
    ASSERT_GE(h, 0);
    EXPECT_EQ(os.serial_open(pty.slave_path().c_str()), -1); // held, even for root
    os.serial_close(h);
    int32_t again = os.serial_open(pty.slave_path().c_str());
    EXPECT_GE(again, 0);
    os.serial_close(again);

    temp_cwd cwd;
    EXPECT_EQ(os.serial_open("not-there"), -1);
    EXPECT_FALSE(file_exists("not-there"));
}

TEST_F(linux_serial, ReadTakesWhatIsWaitingAndIdlesForASecond)
{
    pty_pair pty;
    int32_t h = os.serial_open(pty.slave_path().c_str());
    ASSERT_GE(h, 0);
    std::vector<char> buf(1 << 20);
    int err = 0;

    // Raw both ways: line ends, control characters and NUL pass untouched.
    std::string bytes("\r\n\x03\x00\x11\x13\x7f\xff" "48-bytes-of-payload-to-fill-up-the-line----", 48);
    pty.write_master(bytes);
    auto t0 = std::chrono::steady_clock::now();
    std::string got;
    while (got.size() < bytes.size()) {
        int32_t n = os.serial_read(h, buf.data(), (uint32_t)buf.size(), &err);
        ASSERT_GT(n, 0);
        got.append(buf.data(), (size_t)n);
    }
    EXPECT_EQ(got, bytes);
    EXPECT_LT(elapsed_since(t0), 0.5);

    t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(os.serial_read(h, buf.data(), 16, &err), 0);
    double idle = elapsed_since(t0);
    EXPECT_GE(idle, 0.95);
    EXPECT_LT(idle, 1.5);

    EXPECT_EQ(os.serial_write(h, bytes.data(), (uint32_t)bytes.size(), &err), 48);
    EXPECT_EQ(pty.read_master(100, 1000), bytes);
    os.serial_close(h);
}

TEST_F(linux_serial, VanishedFarEndIsAFailureNotAnIdleLine)
{
    pty_pair pty;
    int32_t h = os.serial_open(pty.slave_path().c_str());
    ASSERT_GE(h, 0);
    pty.close_master();
    char buf[16];
    int err = 0;
    auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(os.serial_read(h, buf, sizeof(buf), &err), -1);
    EXPECT_EQ(err, EIO);
    EXPECT_LT(elapsed_since(t0), 0.5);
    os.serial_close(h);
}

// Writes block with a timer when a wake signal can be had, and poll when
// not: both keep the limit and ride out signals that are not theirs.
struct serial_write : linux_serial, ::testing::WithParamInterface<bool> {
    void SetUp() override
    {
        if (!GetParam())
            platform_posix_calls().wake_signal = [] { return 0; };
    }
};
INSTANTIATE_TEST_SUITE_P(Modes, serial_write, ::testing::Values(true, false),
                         [](const auto &info) { return info.param ? "Blocking" : "Polled"; });

TEST_P(serial_write, GivesUpAfterTwoSeconds)
{
    pty_pair pty;
    int32_t h = os.serial_open(pty.slave_path().c_str());
    ASSERT_GE(h, 0);
    EXPECT_EQ(fcntl(h, F_GETFL) & O_NONBLOCK, GetParam() ? 0 : O_NONBLOCK);
    // Nobody reads the master, so the pty's buffer fills and the write stalls.
    std::vector<char> big(8 << 20, 'w');
    int err = 0;
    auto t0 = std::chrono::steady_clock::now();
    int32_t n = os.serial_write(h, big.data(), (uint32_t)big.size(), &err);
    double took = elapsed_since(t0);
    EXPECT_GT(n, 0);
    EXPECT_LT(n, (int32_t)big.size());
    EXPECT_GE(took, 1.9);
    EXPECT_LT(took, 3.0);
    // The next write has a limit of its own, and the timer is gone.
    t0 = std::chrono::steady_clock::now();
    EXPECT_LT(os.serial_write(h, big.data(), 1 << 16, &err), 1 << 16);
    EXPECT_GE(elapsed_since(t0), 1.9);
    // So has a write from a thread that blocks every signal, and its mask is
    // as it was afterwards.
    std::thread([&] {
        sigset_t all, after;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, nullptr);
        auto t1 = std::chrono::steady_clock::now();
        EXPECT_LT(os.serial_write(h, big.data(), 1 << 16, &err), 1 << 16);
        double blocked_took = elapsed_since(t1);
        EXPECT_GE(blocked_took, 1.9);
        EXPECT_LT(blocked_took, 3.0);
        pthread_sigmask(SIG_SETMASK, nullptr, &after);
        EXPECT_EQ(sigismember(&after, SIGRTMAX), 1);
    }).join();
    os.serial_close(h);
}

TEST_P(serial_write, ForeignSignalsDoNotCutItShort)
{
    pty_pair pty;
    int32_t h = os.serial_open(pty.slave_path().c_str());
    ASSERT_GE(h, 0);
    // A handler without SA_RESTART, as an application may have one.
    struct sigaction act = {}, old = {};
    act.sa_handler = [](int) {};
    sigaction(SIGUSR1, &act, &old);
    std::vector<char> big(4 << 20, 'w');
    std::atomic<bool> writing{true};
    pthread_t writer = pthread_self();
    std::thread noise([&] {
        while (writing) {
            pthread_kill(writer, SIGUSR1);
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    });
    // The far end starts reading late, so the write waits for room meanwhile.
    size_t drained = 0;
    std::thread reader([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        while (drained < big.size()) {
            std::string got = pty.read_master(1 << 20, 2500);
            if (got.empty())
                break;
            drained += got.size();
        }
    });
    int err = 0;
    int32_t n = os.serial_write(h, big.data(), (uint32_t)big.size(), &err);
    writing = false;
    noise.join();
    reader.join();
    sigaction(SIGUSR1, &old, nullptr);
    EXPECT_EQ(n, (int32_t)big.size());
    EXPECT_EQ(drained, big.size());
    os.serial_close(h);
}

TEST_F(linux_serial, FailingTerminalSetupClosesThePort)
{
    pty_pair pty;
    static int closed;
    closed = 0;
    platform_posix_calls().make_raw = [](int) { errno = EIO; return -1; };
    platform_posix_calls().close = [](int fd) {
        closed++;
        return ::close(fd);
    };
    EXPECT_EQ(os.serial_open(pty.slave_path().c_str()), -1);
    EXPECT_EQ(closed, 1);
    platform_posix_reset();
    // The failed open left no lock behind.
    int32_t h = os.serial_open(pty.slave_path().c_str());
    EXPECT_GE(h, 0);
    os.serial_close(h);
}

// The Linux serial layer on a real pseudo-terminal.
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <thread>

#include "platform/platform.h"
#include "support/helpers.h"
#include "support/pty.h"

using namespace ravik;
using namespace ravik::test;
using namespace std::chrono;

namespace {
int longest_wait; // the longest time-out the layer gave poll, in ms

// Writes can run on two ways: blocking, bounded by a timer and its wake
// signal, or non-blocking with poll where no wake signal can be had.
struct serial : ::testing::TestWithParam<bool> {
    const platform_ops &os = platform_linux();
    pty_pair pty;
    int32_t h = -1;
    int err = 0;
    void SetUp() override
    {
        longest_wait = 0;
        platform_posix_calls().poll = [](int fd, short events, int ms, short *revents) {
            struct pollfd p = {fd, events, 0};
            longest_wait = std::max(longest_wait, ms);
            int r = ::poll(&p, 1, ms);
            *revents = p.revents;
            return r;
        };
        if (!GetParam())
            platform_posix_calls().wake_signal = [] { return 0; };
        ASSERT_GE(h = os.serial_open(pty.slave_path().c_str()), 0);
        EXPECT_EQ(fcntl(h, F_GETFL) & O_NONBLOCK, GetParam() ? 0 : O_NONBLOCK);
    }
    void TearDown() override
    {
        os.serial_close(h);
        platform_posix_reset();
    }
    // The write gave up (the layer's limit is 2 s), and not after 10 s.
    void gives_up(uint32_t count)
    {
        std::vector<char> big(count, 'w');
        auto t0 = steady_clock::now();
        EXPECT_LT(os.serial_write(h, big.data(), count, &err), (int32_t)count);
        EXPECT_LT(steady_clock::now() - t0, seconds(10));
    }
};
INSTANTIATE_TEST_SUITE_P(Modes, serial, ::testing::Values(true, false),
                         [](const auto &info) { return info.param ? "Blocking" : "Polled"; });
} // namespace

TEST_P(serial, OpenIsExclusiveNeverCreatesAndCleansUp)
{
    EXPECT_EQ(os.serial_open(pty.slave_path().c_str()), -1); // held, even for root
    temp_cwd cwd;
    EXPECT_EQ(os.serial_open("not-there"), -1);
    EXPECT_FALSE(file_exists("not-there"));
    os.serial_close(std::exchange(h, -1));
    static int closed;
    closed = 0;
    platform_posix_calls().make_raw = [](int) { return errno = EIO, -1; };
    platform_posix_calls().close = [](int fd) { return closed++, ::close(fd); };
    EXPECT_EQ(os.serial_open(pty.slave_path().c_str()), -1);
    EXPECT_EQ(closed, 1);
    platform_posix_reset();
    EXPECT_GE(h = os.serial_open(pty.slave_path().c_str()), 0); // no lock left behind
}

TEST_P(serial, ReadsRawBytesIdlesForASecondAndSeesAHangUp)
{
    // Raw both ways: line ends, control characters and NUL pass untouched.
    std::string bytes("\r\n\x03\x00\x11\x13\x7f\xff" "48-bytes-of-payload-to-fill-up-the-line----", 48), got;
    ASSERT_EQ(::write(pty.master(), bytes.data(), bytes.size()), 48);
    char buf[64];
    for (int32_t n; got.size() < bytes.size() && (n = os.serial_read(h, buf, sizeof(buf), &err)) > 0;)
        got.append(buf, (size_t)n);
    EXPECT_EQ(got, bytes);
    EXPECT_EQ(os.serial_read(h, buf, 16, &err), 0);
    EXPECT_TRUE(longest_wait > 900 && longest_wait <= 1000) << longest_wait;
    EXPECT_EQ(os.serial_write(h, bytes.data(), (uint32_t)bytes.size(), &err), 48);
    EXPECT_EQ(pty.read_master(100, 1000), bytes);
    pty.close_master(); // a vanished far end is a failure, not an idle line
    EXPECT_EQ(os.serial_read(h, buf, sizeof(buf), &err), -1);
    EXPECT_EQ(err, EIO);
}

TEST_P(serial, WriteGivesUpAfterTwoSecondsWhateverTheThreadBlocks)
{
    gives_up(8 << 20); // nobody reads the master, so the pty's buffer fills
    EXPECT_TRUE(GetParam() || (longest_wait > 1900 && longest_wait <= 2000)) << longest_wait;
    std::thread([&] { // the next write has a limit of its own, and the mask is as it was
        sigset_t all, after;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, nullptr);
        gives_up(1 << 16);
        pthread_sigmask(SIG_SETMASK, nullptr, &after);
        EXPECT_EQ(sigismember(&after, SIGRTMAX), 1);
    }).join();
}

TEST_P(serial, ForeignSignalsDoNotCutAWriteShort)
{
    struct sigaction act = {}, old = {};
    act.sa_handler = [](int) {}; // without SA_RESTART, as an application may have one
    sigaction(SIGUSR1, &act, &old);
    std::vector<char> big(1 << 20, 'w');
    std::atomic<bool> writing{true};
    std::thread noise([&, writer = pthread_self()] {
        for (; writing; std::this_thread::sleep_for(milliseconds(20)))
            pthread_kill(writer, SIGUSR1);
    });
    size_t drained = 0;
    std::thread reader([&] { // starts late, so the write waits for room meanwhile
        std::this_thread::sleep_for(milliseconds(300));
        for (std::string got; drained < big.size() && !(got = pty.read_master(1 << 20, 2500)).empty();)
            drained += got.size();
    });
    EXPECT_EQ(os.serial_write(h, big.data(), (uint32_t)big.size(), &err), (int32_t)big.size());
    writing = false;
    noise.join();
    reader.join();
    sigaction(SIGUSR1, &old, nullptr);
    EXPECT_EQ(drained, big.size());
}

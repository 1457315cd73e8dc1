// The application frame, fatal exit and the signal handlers.
#include "vxMain.h"

#include "vxTest.h"
#include "vxVersions.h"

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>

using namespace veltrix;
using vxtest::firstMessage;
using vxtest::latched;
using vxtest::trailMessages;

namespace {

/** Returns the process-wide debug and signal objects to closed, so InitAndRun can open them. */
void closeGlobalObjects()
{
    for (vxBase* object :
         {static_cast<vxBase*>(&vxGlobal.debug), static_cast<vxBase*>(&vxGlobal.signals)}) {
        if (object->opened) {
            ASSERT_TRUE(vxtest::testFrame::closeChild(*object));
        }
    }
}

class recordingApp : public vxMain
{
public:
    bool main(int argc, char** argv) override
    {
        seenArgc = argc;
        seenArgv = argv;
        return result;
    }

    bool result = true;
    int seenArgc = 0;
    char** seenArgv = nullptr;
};

using mainTest = vxtest::vxTest;

TEST_F(mainTest, FrameIsTheOpenRootAndHandsItBack)
{
    vxBase* const before = vxGlobal.root;
    {
        recordingApp app;
        EXPECT_EQ(vxGlobal.root, &app);
        EXPECT_EQ(app.name, "vxMain");
        EXPECT_TRUE(app.opened);
        EXPECT_EQ(app.depth, 0U);
        EXPECT_EQ(app.parent, nullptr);
        EXPECT_NE(app.openLine, 0U);
    }
    EXPECT_EQ(vxGlobal.root, before);
    EXPECT_FALSE(latched()); // the frame is never reported as unclosed
}

TEST_F(mainTest, FramesMayEndInAnyOrderWithoutLeavingADestroyedRoot)
{
    vxBase* const before = vxGlobal.root;
    std::array<int, 3> order = {0, 1, 2};
    do {
        std::array<std::unique_ptr<recordingApp>, 3> frames;
        for (auto& app : frames) {
            app = std::make_unique<recordingApp>();
        }
        for (const int index : order) {
            frames[index].reset();
            // The newest frame still alive is the root, else the one before them all.
            vxBase* expected = before;
            for (const auto& app : frames) {
                expected = app ? app.get() : expected;
            }
            EXPECT_EQ(vxGlobal.root, expected)
                << "destroyed " << order[0] << order[1] << order[2] << " up to " << index;
        }
    } while (std::next_permutation(order.begin(), order.end()));
    EXPECT_FALSE(latched());
}

TEST_F(mainTest, InitAndRunRecordsTheApplicationAndRunsMain)
{
    closeGlobalObjects();
    recordingApp app;
    char arg0[] = "app";
    char* argv[] = {arg0, nullptr};
    ASSERT_TRUE(app.InitAndRun("tester", "9.1", 1, argv)) << vxtest::dumpTrail();
    EXPECT_EQ(app.seenArgc, 1);
    EXPECT_EQ(app.seenArgv, argv);
    EXPECT_EQ(vxGlobal.versions->appName, "tester");
    EXPECT_EQ(vxGlobal.versions->appVersion, "9.1");
    EXPECT_TRUE(vxGlobal.debug.opened);
    EXPECT_TRUE(vxGlobal.signals.opened);

    // The debug object is open now, so a second run fails in its PreOpen.
    const std::string expected = "Object in incorrect state:  Expected closed, Inited: " +
                                 std::to_string(vxGlobal.debug.initLine) +
                                 ",  Opened: " + std::to_string(vxGlobal.debug.openLine);
    EXPECT_FALSE(app.InitAndRun("tester", "9.2", 1, argv));
    EXPECT_EQ(trailMessages(),
              (std::vector<std::string>{expected, "Object PreOpen() routine failed."}));
    EXPECT_EQ(vxGlobal.versions->appVersion, "9.2"); // step 1 runs before any check
}

TEST_F(mainTest, FailingMainIsRecorded)
{
    closeGlobalObjects();
    recordingApp app;
    app.result = false;
    EXPECT_FAILS_WITH(app.InitAndRun("tester", "1", 0, nullptr), "Boolean return value failed.");
}

TEST_F(mainTest, LatchedFrameDoesNotRun)
{
    closeGlobalObjects();
    recordingApp app;
    vxGlobal.stackTrace.errorLatch = true;
    EXPECT_FALSE(app.InitAndRun("tester", "1", 0, nullptr));
    EXPECT_EQ(app.seenArgc, 0);
    EXPECT_EQ(trailMessages(), std::vector<std::string>{vxtest::kRefusal});
}

TEST_F(mainTest, LoadPluginTwiceFailsInPreOpen)
{
    if (cryptoRegistry != nullptr) {
        GTEST_SKIP() << "a plug-in is already loaded in this process";
    }
    recordingApp app;
    app.api.setSearchPath(VX_PLUGIN_DIR);
    // Everything after the first NUL is dropped from the name.
    ASSERT_TRUE(app.LoadPlugin(std::string("openssl\0junk", 12))) << vxtest::dumpTrail();
    EXPECT_EQ(app.api.loader.fileName, "libveltrix_openssl.so");
    EXPECT_NE(cryptoRegistry, nullptr);
    EXPECT_FALSE(app.LoadPlugin("openssl"));
    EXPECT_EQ(firstMessage().rfind("Object in incorrect state:  Expected closed, Inited: ", 0), 0U)
        << firstMessage();
    veltrix::vxBase::lvxClearLastError();
    EXPECT_TRUE(vxtest::testFrame::closeChild(app.api));
    EXPECT_EQ(cryptoRegistry, nullptr);
}

TEST_F(mainTest, LoadPluginReportsAMissingPlugin)
{
    if (cryptoRegistry != nullptr) {
        GTEST_SKIP() << "a plug-in is already loaded in this process";
    }
    recordingApp app;
    app.api.setSearchPath(VX_PLUGIN_DIR);
    EXPECT_FALSE(app.LoadPlugin("absent"));
    EXPECT_EQ(trailMessages(),
              (std::vector<std::string>{"No such file or directory: libveltrix_absent.so",
                                        "Boolean return value failed.",
                                        "Object Open() routine failed."}));
}

TEST(mainDeathTest, DiePrintsOneErrorLineAndExitsWithOne)
{
    EXPECT_EXIT(vxMain::Die("%s %d", "disk full on", 7), ::testing::ExitedWithCode(1),
                "^\\*\\*\\* Error: disk full on 7\n$");
}

TEST(mainDeathTest, DieCutsTheMessageAt1023Characters)
{
    const std::string longText(2000, 'x');
    EXPECT_EXIT(vxMain::Die("%s", longText.c_str()), ::testing::ExitedWithCode(1),
                "^\\*\\*\\* Error: x{1023}\n$");
}

TEST(signalDeathTest, QuitHandlerEndsAtOnceWithZero)
{
    // Ended through _exit: an atexit handler registered before the signal never runs.
    EXPECT_EXIT(
        {
            (void)std::atexit([] { (void)std::fputs("atexit handler ran", stderr); });
            vxSignalHandlerQuit(SIGTERM);
        },
        ::testing::ExitedWithCode(0), "^$");
}

TEST(signalTest, DummyHandlerAbsorbsInterruptAndHangup)
{
    struct sigaction saved[2] = {};
    ASSERT_EQ(sigaction(SIGINT, nullptr, &saved[0]), 0);
    ASSERT_EQ(sigaction(SIGHUP, nullptr, &saved[1]), 0);
    vxSignalHandlerDummy(0);
    for (const int signo : {SIGINT, SIGHUP}) {
        struct sigaction now = {};
        ASSERT_EQ(sigaction(signo, nullptr, &now), 0);
        EXPECT_EQ(now.sa_handler, &vxSignalHandlerDummy);
        EXPECT_EQ(raise(signo), 0); // absorbed: the process goes on
    }
    ASSERT_EQ(sigaction(SIGINT, &saved[0], nullptr), 0);
    ASSERT_EQ(sigaction(SIGHUP, &saved[1], nullptr), 0);
}

TEST(signalTest, ChildHandlerReapsEveryChildAndKeepsErrno)
{
    struct sigaction saved = {};
    ASSERT_EQ(sigaction(SIGCHLD, nullptr, &saved), 0);
    for (int i = 0; i < 3; ++i) {
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            _exit(0);
        }
        // Wait for the end without reaping: the handler must do that.
        siginfo_t info = {};
        ASSERT_EQ(waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT), 0);
    }
    errno = E2BIG;
    vxSignalHandlerChld(SIGCHLD);
    EXPECT_EQ(errno, E2BIG);
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
    EXPECT_EQ(errno, ECHILD);
    struct sigaction now = {};
    ASSERT_EQ(sigaction(SIGCHLD, nullptr, &now), 0);
    EXPECT_EQ(now.sa_handler, &vxSignalHandlerChld);
    ASSERT_EQ(sigaction(SIGCHLD, &saved, nullptr), 0);
}

} // namespace

// What a careless or hostile local setting does to the program: standard descriptors closed at
// the start, secret files of the wrong kind, size, owner or line ends, something planted at the
// bind log's path, and the library's own reports, which must stay out of every data stream.
#include "cliRun.h"
#include "streamPeer.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <string>
#include <vector>

using namespace vxclitest;

namespace {

constexpr const char* kSecret = "a secret of the local tests";

class localTest : public testing::Test
{
protected:
    void SetUp() override { writeFile(psk, kSecret); }

    /** Runs `cat` to a port nothing listens on with the secret file `file`: the secret is read
     *  and checked before anything connects. */
    runResult catWith(const std::string& file)
    {
        return runVeltrix({"cat", address(freePort()), "--psk-file", file}, "", 20);
    }

    /** A listening cat with `listenerSecret` and a client with `clientSecret`: whether the
     *  data went across; the listener's standard error goes to `listenerErr`. */
    static bool talk(const std::string& listenerSecret, const std::string& clientSecret,
                     std::string& listenerErr, std::string& clientErr)
    {
        const catPair ends = runCatPair(freePort(), {"--psk-file", listenerSecret, "--once"}, "",
                                        {"--psk-file", clientSecret}, "across");
        listenerErr = ends.listenerErr;
        clientErr = ends.client.err;
        return ends.client.status == 0 && ends.listenerStatus == 0 && ends.heard == "across";
    }

    scratchDir dir;
    std::string psk = dir.file("psk");
};

TEST_F(localTest, ClosedStandardDescriptorsAreReplacedBeforeAnythingOpens)
{
    if (VX_EMULATED != 0) {
        GTEST_SKIP() << "an emulator opens descriptors of its own before the program starts";
    }
    {
        SCOPED_TRACE("standard input closed: the listening socket must not take its number");
        const int port = freePort();
        backgroundRun listener({"sh", "-c",
                                "exec " + veltrixCommand() + " cat --listen " + address(port) +
                                    " --psk-file " + psk + " --once <&-"});
        ASSERT_TRUE(listeningWithin(port, 30)) << listener.errorText();
        const runResult client = runVeltrix({"cat", address(port), "--psk-file", psk}, "hi");
        EXPECT_EQ(client.status, 0) << client.err;
        EXPECT_EQ(listener.wait(30), 0) << listener.errorText();
    }
    {
        SCOPED_TRACE("standard output closed: a detached tunnel must still listen and serve");
        loopbackService service{echoBytes};
        const int port = freePort();
        const std::string pidFile = dir.file("tunnel.pid");
        const runResult start =
            runProgram({"sh", "-c",
                        veltrixCommand() + " tunnel --server --accept " + address(port) +
                            " --connect " + address(service.port) + " --psk-file " + psk +
                            " --pid-file " + pidFile + " --log-file " + dir.file("log") + " >&-"});
        ASSERT_EQ(start.status, 0) << start.err;
        const pid_t tunnel = std::stoi(readFile(pidFile));
        EXPECT_TRUE(listeningWithin(port, 10));
        const runResult client = runVeltrix({"cat", address(port), "--psk-file", psk}, "echo me");
        EXPECT_EQ(client.status, 0) << client.err << readFile(dir.file("log"));
        EXPECT_EQ(client.out, "echo me");
        (void)kill(tunnel, SIGTERM);
    }
}

TEST_F(localTest, SecretFilesAreCheckedForTypeOwnerAndSizeBeforeTheyAreRead)
{
    const std::string fifo = dir.file("fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const std::string large = dir.file("large");
    writeFile(large, std::string(5000, 'k'));
    const std::string shared = dir.file("shared");
    writeFile(shared, kSecret, 0640);
    const std::string empty = dir.file("empty");
    writeFile(empty, "\n");

    const struct
    {
        std::string path;
        std::string message;
    } cases[] = {
        {dir.path, "the secret file " + dir.path + " is not a regular file"},
        {fifo, "the secret file " + fifo + " is not a regular file"}, // no writer: no wait
        {large,
         "the secret file " + large + " holds 5000 bytes, more than the 4096 a secret may have"},
        {shared, "the secret file " + shared +
                     " is open to group or others (mode 0640); run chmod 600 " + shared},
        {empty, "the secret file " + empty + " is empty"},
    };

    for (const auto& each : cases) {
        SCOPED_TRACE(each.path);
        const runResult run = catWith(each.path);
        EXPECT_EQ(run.status, 1);
        EXPECT_EQ(run.err, "veltrix cat: " + each.message + "\n");
    }
    if (geteuid() == 0) {
        const std::string foreign = dir.file("foreign");
        writeFile(foreign, kSecret);
        ASSERT_EQ(chown(foreign.c_str(), 65534, 65534), 0);
        const runResult run = catWith(foreign);
        EXPECT_EQ(run.err, "veltrix cat: the secret file " + foreign +
                               " belongs to user 65534, not to this user or root\n");
    }
}

TEST_F(localTest, OneLineEndIsNotPartOfTheSecretAndWeakSecretsAreNamed)
{
    const std::string crlf = dir.file("crlf");
    writeFile(crlf, std::string(kSecret) + "\r\n");
    std::string listenerErr;
    std::string clientErr;
    EXPECT_TRUE(talk(crlf, psk, listenerErr, clientErr)) << listenerErr << clientErr;
    EXPECT_EQ(listenerErr, "");

    const std::string twice = dir.file("twice");
    writeFile(twice, std::string(kSecret) + "\n\n");
    EXPECT_FALSE(talk(twice, psk, listenerErr, clientErr));
    EXPECT_TRUE(
        contains(listenerErr, "veltrix cat: warning: the secret file " + twice +
                                  " ends with more than one line end; only the last is not part "
                                  "of the secret\n"));

    const std::string shortOne = dir.file("short");
    writeFile(shortOne, "x\n");
    EXPECT_TRUE(talk(shortOne, shortOne, listenerErr, clientErr)) << listenerErr << clientErr;
    EXPECT_EQ(clientErr, "veltrix cat: warning: the secret in " + shortOne +
                             " is only 1 byte: use 16 or more (veltrix key psk makes one)\n");
}

/** Something another user may plant where the library appends its bind log. */
class bindLogTest : public localTest
{
protected:
    static constexpr const char* kDir = vxtest::bindLogAside::kDir;

    void SetUp() override
    {
        localTest::SetUp();
        vxtest::bindLogAside::create();
    }

    vxtest::bindLogAside logAside;
};

TEST_F(bindLogTest, AFifoAtTheBindLogsPathIsLeftAloneWithOneLine)
{
    const std::string log = std::string(kDir) + "/vxNetSocket.log";
    ASSERT_EQ(mkfifo(log.c_str(), 0666), 0);
    std::string listenerErr;
    std::string clientErr;
    EXPECT_TRUE(talk(psk, psk, listenerErr, clientErr)) << listenerErr << clientErr;
    EXPECT_EQ(listenerErr, "veltrix cat: warning: the bind log " + log +
                               " is not a regular file of this user or root: nothing is "
                               "written to it\n");
}

TEST_F(localTest, AForegroundTunnelLogsTheLibrarysReportsAndKeepsItsOutputClean)
{
    loopbackService service{echoBytes};
    const int port = freePort();
    backgroundRun tunnel({veltrixPath(), "tunnel", "--server", "--foreground", "--accept",
                          address(port), "--connect", address(service.port), "--psk-file", psk},
                         "", dir.file("out"));
    ASSERT_TRUE(tunnel.waitForError("listening on", 30)) << tunnel.errorText();
    // An authenticated peer sends a command the library does not know, which it reports. The
    // receiver reads 16 bytes after a command header: they fill the first packet's size.
    vxtest::ensurePlugin();
    vxtest::testFrame frame;
    streamPeer peer(frame);
    ASSERT_TRUE(peer.connect(port, kSecret)) << peer.problem();
    ASSERT_TRUE(peer.sendRaw(peer.sealCommand(17) + std::string(16, '\0'))) << peer.problem();
    EXPECT_TRUE(closedWithin(peer.fd(), 30));
    EXPECT_TRUE(tunnel.waitForError("the library reports: fail\n", 30)) << tunnel.errorText();
    tunnel.signal(SIGTERM);
    EXPECT_EQ(tunnel.wait(30), 0);
    EXPECT_EQ(readFile(dir.file("out")), "");
}

} // namespace

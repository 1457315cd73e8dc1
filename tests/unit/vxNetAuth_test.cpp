// The handshake object on a socket pair, both ends driven from one thread in the order the two
// endpoints use: the version, the two challenges and answers, and the seeding of the session.

#include "vxNetAuth.h"

#include "vxNetSocket.h"
#include "vxTest.h"

#include <sys/socket.h>
#include <unistd.h>

#include <initializer_list>
#include <string>

namespace {

using veltrix::vxBytes;
using veltrix::vxNetPSKChallengeResponse;
using vxtest::testFrame;

class vxNetAuthTest : public vxtest::vxCryptoTest
{
protected:
    void SetUp() override
    {
        vxtest::vxCryptoTest::SetUp();
        int fds[2] = {-1, -1};
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
        ASSERT_TRUE(frame.open(cipher, 2U) && frame.open(serverPlain, true) &&
                    frame.open(clientPlain, false));
        serverPlain.sockFd = fds[0];
        clientPlain.sockFd = fds[1];
    }

    void TearDown() override
    {
        veltrix::vxBase::lvxClearLastError();
        for (veltrix::vxBase* object : std::initializer_list<veltrix::vxBase*>{
                 &server, &client, &serverChannel, &clientChannel, &serverPlain, &clientPlain,
                 &cipher}) {
            if (object->opened) {
                testFrame::closeExpected(*object);
            }
        }
        vxtest::vxCryptoTest::TearDown();
    }

    bool openBoth(const std::string& serverSecret, const std::string& clientSecret)
    {
        return frame.open(server, cipher, true) && frame.open(client, cipher, false) &&
               server.SetSecret(vxtest::bytesOf(serverSecret)) &&
               client.SetSecret(vxtest::bytesOf(clientSecret));
    }

    /** Steps 2 to 5 of the sequence: version, the server's challenge and the client's answer. */
    bool serverChallenges()
    {
        return server.SendProtocolVersion(serverPlain) && client.RecvProtocolVersion(clientPlain) &&
               server.GenerateChallengeRequest() && server.SendChallengeRequest(serverPlain) &&
               client.RecvChallengeRequest(clientPlain) && client.GenerateChallengeResponse() &&
               client.SendChallengeResponse(clientPlain) &&
               server.RecvChallengeResponse(serverPlain) && server.ValidateChallengeResponse();
    }

    /** Steps 6 and 7: the client's challenge and the server's answer. */
    bool clientChallenges()
    {
        return client.GenerateChallengeRequest() && client.SendChallengeRequest(clientPlain) &&
               server.RecvChallengeRequest(serverPlain) && server.GenerateChallengeResponse() &&
               server.SendChallengeResponse(serverPlain) &&
               client.RecvChallengeResponse(clientPlain) && client.ValidateChallengeResponse();
    }

    veltrix::vxCipherId cipher;
    veltrix::vxNetSocket serverPlain;
    veltrix::vxNetSocket clientPlain;
    veltrix::vxNetEncryptedSocket serverChannel;
    veltrix::vxNetEncryptedSocket clientChannel;
    vxNetPSKChallengeResponse server;
    vxNetPSKChallengeResponse client;
};

TEST_F(vxNetAuthTest, TheWholeSequenceKeysBothSessionsFromBothChallenges)
{
    ASSERT_TRUE(openBoth("shared", "shared"));
    ASSERT_TRUE(serverChallenges() && clientChallenges()) << vxtest::dumpTrail();
    EXPECT_EQ(client.protocolVersion, 1U);
    EXPECT_EQ(server.localChallenges.bytes.size(), 16U);
    EXPECT_EQ(server.localChallenges.bytes, client.peerChallenges.bytes);
    EXPECT_EQ(client.localChallenges.bytes, server.peerChallenges.bytes);
    EXPECT_NE(server.localChallenges.bytes, client.localChallenges.bytes);

    ASSERT_TRUE(frame.open(serverChannel, "aes128", &serverPlain) &&
                frame.open(clientChannel, "aes128", &clientPlain));
    ASSERT_TRUE(server.SeedInitialKeys(serverChannel) && client.SeedInitialKeys(clientChannel));
    vxBytes got;
    ASSERT_TRUE(clientChannel.SendEncrypted(vxtest::bytesOf("keyed")) &&
                serverChannel.RecvEncrypted(got))
        << vxtest::dumpTrail();
    EXPECT_EQ(got.bytes, vxtest::bytesOf("keyed").bytes);
    ASSERT_TRUE(serverChannel.SendEncrypted(vxtest::bytesOf("back")) &&
                clientChannel.RecvEncrypted(got));
    EXPECT_EQ(got.bytes, vxtest::bytesOf("back").bytes);
}

TEST_F(vxNetAuthTest, ADifferentSecretFailsTheServersValidation)
{
    ASSERT_TRUE(openBoth("shared", "guessed"));
    EXPECT_FALSE(serverChallenges());
    EXPECT_EQ(vxtest::firstMessage(), "( decrypted == correctResponse )");
}

TEST_F(vxNetAuthTest, TheSecretAccumulatesAndItsDigestCoversAll)
{
    ASSERT_TRUE(frame.open(server, cipher, true));
    ASSERT_TRUE(server.SetSecret(vxtest::bytesOf("a")) && server.SetSecret(vxtest::bytesOf("bc")));
    EXPECT_EQ(server.secret.bytes, vxtest::bytesOf("abc").bytes);
    // MD5("abc"), RFC 1321 appendix A.5: the default digest.
    EXPECT_EQ(vxtest::toHex(server.secretDigest.bytes), "900150983CD24FB0D6963F7D28E17F72");
}

TEST_F(vxNetAuthTest, ChallengesFromThePeerGoToThePeerPoolAtEitherEnd)
{
    ASSERT_TRUE(frame.open(server, cipher, true) && frame.open(client, cipher, false));
    for (vxNetPSKChallengeResponse* end : {&server, &client}) {
        EXPECT_TRUE(end->UpdateEntropyPool(true, vxtest::bytesOf("p")));
        EXPECT_TRUE(end->UpdateEntropyPool(false, vxtest::bytesOf("l")));
        EXPECT_TRUE(end->UpdateEntropyPool(true, vxtest::bytesOf("q")));
        EXPECT_EQ(end->peerChallenges.bytes, vxtest::bytesOf("pq").bytes);
        EXPECT_EQ(end->localChallenges.bytes, vxtest::bytesOf("l").bytes);
    }
}

TEST_F(vxNetAuthTest, AVersionThatNeverCameIsReportedBeforeItFails)
{
    ASSERT_TRUE(openBoth("shared", "shared"));
    (void)shutdown(serverPlain.sockFd, SHUT_WR);
    testing::internal::CaptureStdout();
    EXPECT_FAILS_WITH(client.RecvProtocolVersion(clientPlain), "(haystack.bytes.size() > 1 )");
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "RecvProtocolVersion : error receiving protocol:: encrypted size=0, decrypted "
              "size=0\n");
    EXPECT_TRUE(clientPlain.doDisconnect);
}

} // namespace

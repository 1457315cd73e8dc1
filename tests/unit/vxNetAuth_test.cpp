// The handshake object's own rules: the secret and its digest, the entropy pools, and the report of
// a version that never came. The whole sequence runs in the loopback sessions.

#include "vxNetAuth.h"

#include "vxLoopback.h"
#include "vxNetSocket.h"

#include <sys/socket.h>

#include <string>

namespace {

using veltrix::vxBytes;
using veltrix::vxNetPSKChallengeResponse;

class vxNetAuthTest : public vxtest::vxCryptoTest
{
protected:
    void SetUp() override
    {
        vxtest::vxCryptoTest::SetUp();
        closeAtEnd = {&server, &client, &serverPlain, &clientPlain, &cipher};
        ASSERT_TRUE(frame.openChild(cipher, 2U) &&
                    vxtest::openOnSocketPair(frame, serverPlain, clientPlain));
    }

    bool openBoth(const std::string& serverSecret, const std::string& clientSecret)
    {
        return frame.openChild(server, cipher, true) && frame.openChild(client, cipher, false) &&
               server.SetSecret(vxtest::bytesOf(serverSecret)) &&
               client.SetSecret(vxtest::bytesOf(clientSecret));
    }

    veltrix::vxCipherId cipher;
    veltrix::vxNetSocket serverPlain;
    veltrix::vxNetSocket clientPlain;
    vxNetPSKChallengeResponse server;
    vxNetPSKChallengeResponse client;
};

TEST_F(vxNetAuthTest, TheSecretAccumulatesAndItsDigestCoversAll)
{
    ASSERT_TRUE(frame.openChild(server, cipher, true));
    ASSERT_TRUE(server.SetSecret(vxtest::bytesOf("a")) && server.SetSecret(vxtest::bytesOf("bc")));
    EXPECT_EQ(server.secret.bytes, vxtest::bytesOf("abc").bytes);
    // MD5("abc"), RFC 1321 appendix A.5: the default digest.
    EXPECT_EQ(vxtest::toHex(server.secretDigest.bytes), "900150983CD24FB0D6963F7D28E17F72");
}

TEST_F(vxNetAuthTest, ChallengesFromThePeerGoToThePeerPoolAtEitherEnd)
{
    ASSERT_TRUE(frame.openChild(server, cipher, true) && frame.openChild(client, cipher, false));
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

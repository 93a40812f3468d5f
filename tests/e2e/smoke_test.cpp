#include <gtest/gtest.h>

#include "fixtures.h"

namespace {

TEST(Smoke, SignedLogAndQrCodeVerify)
{
    fixtures::TempDir dir;
    EcKeyPtr key = fixtures::makeEcKey();
    const std::string cert = dir.write("cert.pem", fixtures::certificatePem(key.get()));
    const std::string log = dir.write("a.log", fixtures::signedExportedLog(key.get(), {}));
    auto result = fixtures::run(fixtures::verifierPath(), {"-c" + cert, "-l" + log});
    EXPECT_EQ(result.status, 0) << result.out;
    EXPECT_EQ(result.out,
              "Version: 1.2\n\n[INFO] Attempting to validate exported log file.\n"
              "[RESULT] Verifed EC Signature SUCCESS\n");

    result = fixtures::run(fixtures::verifierPath(), {"-q" + fixtures::signedQrFields(key.get(), {}).text()});
    EXPECT_EQ(result.status, 0) << result.out;
}

}  // namespace

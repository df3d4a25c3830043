// What the device description gives away: an id that one vendor's apps share and no other
// vendor can join on, and a name that is the machine's model rather than its owner's name.
#include <fstream>

#include <gtest/gtest.h>

#include "platform/posix/PosixServices.h"
#include "support/TempDir.h"

namespace quorvel::platform {
namespace {

constexpr const char* kMachineId = "0123456789abcdef0123456789abcdef";

class DeviceIdentity : public ::testing::Test {
 protected:
  PosixDeviceSources sources() {
    std::ofstream(dir / "machine-id") << kMachineId << "\n";
    return {dir / "machine-id", dir / "product_name"};
  }
  std::string vendorIdOf(const std::string& bundle) {
    return PosixDevice(std::nullopt, std::nullopt, true, bundle, sources())
        .identifierForVendor()
        .value_or("");
  }
  test::TempDir dir;
};

TEST_F(DeviceIdentity, OneVendorsAppsShareTheVendorIdAndNoOtherVendorGetsIt) {
  const std::string game = vendorIdOf("com.example.game");
  EXPECT_EQ(game.size(), 36U);
  EXPECT_EQ(game[14], '4');  // a version 4 UUID
  EXPECT_EQ(vendorIdOf("com.example.editor"), game);
  EXPECT_NE(vendorIdOf("org.example.game"), game);
  EXPECT_NE(vendorIdOf("com.other.game"), game);
  // Two components name a vendor whole, not two apps of "com".
  EXPECT_NE(vendorIdOf("com.alpha"), vendorIdOf("com.beta"));
  EXPECT_EQ(vendorIdOf("com.alpha"), vendorIdOf("com.alpha.game"));
  // Nothing of the machine id shows through.
  std::string hexOnly;
  for (const char c : game)
    if (c != '-')
      hexOnly.push_back(static_cast<char>(std::tolower(static_cast<unsigned char>(c))));
  EXPECT_EQ(hexOnly.find(std::string(kMachineId).substr(0, 8)), std::string::npos);
  // Another machine, another id for the same vendor.
  std::ofstream(dir / "machine-id") << "fedcba9876543210fedcba9876543210\n";
  EXPECT_NE(PosixDevice(std::nullopt, std::nullopt, true, "com.example.game",
                        {dir / "machine-id", dir / "product_name"})
                .identifierForVendor(),
            game);
}

TEST_F(DeviceIdentity, TheNameIsTheModelUnlessTheHostGivesOne) {
  const auto s = sources();
  EXPECT_EQ(PosixDevice(std::nullopt, std::nullopt, true, "com.example.app", s).name(), "Linux PC");
  std::ofstream(s.productNameFile) << "Example Board 3000 \n";
  EXPECT_EQ(PosixDevice(std::nullopt, std::nullopt, true, "com.example.app", s).name(),
            "Example Board 3000");
  EXPECT_EQ(PosixDevice(std::string("kiosk-7"), std::nullopt, true, "com.example.app", s).name(),
            "kiosk-7");
}

}  // namespace
}  // namespace quorvel::platform

// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

#include "varnel/chips/motordriver/MotorDriver1ChnL6470.h"
#include "varnel/chips/motordriver/MotorDriver1ChnPowerSTEP01.h"

namespace {

using Varnel::CMotorDriver1ChnL6470;
using Varnel::CMotorDriver1ChnPowerSTEP01;
using Varnel::CSTMicroSteppingMotorDriver;
using Varnel::MotorDriverFactoryFunction;
using Varnel::tMotorDriverFactoryMap;

constexpr char kL6470[] = "Varnel::CMotorDriver1ChnL6470";
constexpr char kPowerSTEP01[] = "Varnel::CMotorDriver1ChnPowerSTEP01";

/// Reaches what derived classes can.
struct Factory : CSTMicroSteppingMotorDriver {
  using CSTMicroSteppingMotorDriver::motorDriverFactory;
  using CSTMicroSteppingMotorDriver::motorDriverFactoryRegistry;
};

/// Leaves the registry as the library fills it.
class MotorDriverFactory : public testing::Test {
 protected:
  void TearDown() override { registry_.clear(); }

  static std::vector<std::string> names() {
    std::vector<std::string> all;
    for (const auto& [name, function] : Factory::motorDriverFactoryRegistry()) {
      all.push_back(name);
    }
    return all;
  }

  tMotorDriverFactoryMap& registry_ = Factory::motorDriverFactoryRegistry();
};

/// The text of the exception that `create` throws.
std::string refusal(const std::string& name) {
  try {
    const std::unique_ptr<CSTMicroSteppingMotorDriver> driver(
        CSTMicroSteppingMotorDriver::create(name));
  } catch (const std::invalid_argument& error) {
    return error.what();
  }
  return "none";
}

TEST_F(MotorDriverFactory, MakesBothChipsByName) {
  const std::unique_ptr<CSTMicroSteppingMotorDriver> l6470(
      CSTMicroSteppingMotorDriver::create("Varnel::CMotorDriver1ChnL6470"));
  EXPECT_NE(dynamic_cast<CMotorDriver1ChnL6470*>(l6470.get()), nullptr);
  const std::unique_ptr<CSTMicroSteppingMotorDriver> powerstep01(
      CSTMicroSteppingMotorDriver::create("Varnel::CMotorDriver1ChnPowerSTEP01"));
  EXPECT_NE(dynamic_cast<CMotorDriver1ChnPowerSTEP01*>(powerstep01.get()), nullptr);
}

TEST_F(MotorDriverFactory, MakesANewDriverEachTimeForItsCallerToDelete) {
  CSTMicroSteppingMotorDriver* first = CSTMicroSteppingMotorDriver::create(kL6470);
  CSTMicroSteppingMotorDriver* second = CSTMicroSteppingMotorDriver::create(kL6470);
  EXPECT_NE(first, second);
  EXPECT_TRUE(std::has_virtual_destructor_v<CSTMicroSteppingMotorDriver>);
  delete first;
  delete second;
}

TEST_F(MotorDriverFactory, ExportsItsTwoFunctions) {
  const std::unique_ptr<CSTMicroSteppingMotorDriver> l6470(Varnel::createMotorDriver1ChnL6470());
  EXPECT_NE(dynamic_cast<CMotorDriver1ChnL6470*>(l6470.get()), nullptr);
  const std::unique_ptr<CSTMicroSteppingMotorDriver> powerstep01(
      Varnel::createMotorDriver1ChnPowerSTEP01());
  EXPECT_NE(dynamic_cast<CMotorDriver1ChnPowerSTEP01*>(powerstep01.get()), nullptr);
}

TEST_F(MotorDriverFactory, RefusesUnknownNamesByAnException) {
  EXPECT_EQ(refusal("CMotorDriver1ChnL6470"),
            "Motor driver type CMotorDriver1ChnL6470 not supported");
  EXPECT_EQ(refusal("CMotorDriver1ChnPowerSTEP01"),
            "Motor driver type CMotorDriver1ChnPowerSTEP01 not supported");
  EXPECT_EQ(refusal(""), "Motor driver type  not supported");
  EXPECT_EQ(refusal("Varnel::CMotorDriver1ChnL6470 "),
            "Motor driver type Varnel::CMotorDriver1ChnL6470  not supported");
  EXPECT_EQ(refusal("varnel::cmotordriver1chnl6470"),
            "Motor driver type varnel::cmotordriver1chnl6470 not supported");
  EXPECT_THROW(Factory::motorDriverFactory("x"), std::invalid_argument);
}

TEST_F(MotorDriverFactory, KnowsTwoTypes) {
  EXPECT_EQ(names(), (std::vector<std::string>{kL6470, kPowerSTEP01}));
  EXPECT_EQ(registry_.at(kL6470), &Varnel::createMotorDriver1ChnL6470);
  EXPECT_EQ(registry_.at(kPowerSTEP01), &Varnel::createMotorDriver1ChnPowerSTEP01);
  EXPECT_EQ(Factory::motorDriverFactory(kL6470), &Varnel::createMotorDriver1ChnL6470);
  EXPECT_EQ(Factory::motorDriverFactory(kPowerSTEP01), &Varnel::createMotorDriver1ChnPowerSTEP01);
  EXPECT_TRUE(
      (std::is_same_v<tMotorDriverFactoryMap, std::map<std::string, MotorDriverFactoryFunction>>));
  EXPECT_TRUE((std::is_same_v<MotorDriverFactoryFunction, CSTMicroSteppingMotorDriver* (*)()>));
}

TEST_F(MotorDriverFactory, HasOneRegistry) {
  EXPECT_EQ(&Factory::motorDriverFactoryRegistry(), &registry_);
}

TEST_F(MotorDriverFactory, RefillsAnEmptyRegistryAtTheNextUse) {
  registry_.clear();
  EXPECT_TRUE(registry_.empty());
  EXPECT_EQ(names(), (std::vector<std::string>{kL6470, kPowerSTEP01}));
  registry_.clear();
  EXPECT_EQ(refusal(kL6470), "none");
}

TEST_F(MotorDriverFactory, LeavesARegistryThatHasAnEntry) {
  registry_.erase(kL6470);
  EXPECT_EQ(names(), (std::vector<std::string>{kPowerSTEP01}));
  EXPECT_EQ(refusal(kL6470), "Motor driver type Varnel::CMotorDriver1ChnL6470 not supported");
  registry_.erase(kPowerSTEP01);
  EXPECT_EQ(refusal(kL6470), "none") << "empty, so filled anew";
}

TEST_F(MotorDriverFactory, MakesWhatTheRegistrySays) {
  registry_[kL6470] = Varnel::createMotorDriver1ChnPowerSTEP01;
  const std::unique_ptr<CSTMicroSteppingMotorDriver> driver(
      CSTMicroSteppingMotorDriver::create(kL6470));
  EXPECT_NE(dynamic_cast<CMotorDriver1ChnPowerSTEP01*>(driver.get()), nullptr);
}

}  // namespace

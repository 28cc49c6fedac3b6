// How layers of settings hang together, and how they die.

#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>

#include "cli/GBSettings.h"

using GB::GBSettings;
using vpnctl::Value;

TEST(SettingsLayers, ARingOfParentsIsRefused) {
  const auto bottom = GBSettings::settingsWithName("bottom", nullptr);
  const auto middle = GBSettings::settingsWithName("middle", bottom);
  const auto top = GBSettings::settingsWithName("top", middle);
  EXPECT_THROW(bottom->setParent(top), std::invalid_argument);
  EXPECT_THROW(bottom->setParent(bottom), std::invalid_argument);
  EXPECT_EQ(bottom->parent(), nullptr);
  top->setParent(bottom);
  middle->setParent(top);
  EXPECT_THROW(top->setParent(middle), std::invalid_argument);
  EXPECT_EQ(top->parent(), bottom);
}

TEST(SettingsLayers, AChainOfAnyLengthDies) {
  std::weak_ptr<GBSettings> bottom;
  std::shared_ptr<GBSettings> shared;
  {
    auto top = GBSettings::settingsWithName("bottom", nullptr);
    bottom = top;
    for (int i = 0; i < 500000; ++i) {
      top = GBSettings::settingsWithName("layer", top);
      if (i == 1000) shared = top;
    }
  }
  // What somebody else holds lives on, and what is below it.
  EXPECT_FALSE(bottom.expired());
  EXPECT_NE(shared->parent(), nullptr);
  shared.reset();
  EXPECT_TRUE(bottom.expired());
}

TEST(SettingsLayers, AValueOfAnyDepthDies) {
  GBSettings settings("deep");
  Value array = "leaf";
  Value dictionary = "leaf";
  for (int i = 0; i < 500000; ++i) {
    array = Value::Array{array, "beside"};
    dictionary = Value::Dictionary{{"a", dictionary}, {"b", Value::Array{i}}};
  }
  const Value kept = array.array()[0].array()[0];
  settings.setObjectForKey(array, "array");
  settings.setObjectForKey(dictionary, "dictionary");
  array = dictionary = Value();
  settings.setStorage({});
  EXPECT_EQ(kept.array()[1], Value("beside"));
}

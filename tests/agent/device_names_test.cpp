#include "agent/libZel/device_names.h"

#include <gtest/gtest.h>

namespace {

TEST(DeviceNames, AreThoseOfWindowsInAnyCase) {
  for (const char* name : {"CON", "prn", "Aux", "NUL", "conin$", "CONOUT$", "CLOCK$", "COM0",
                           "com9", "LPT1", "COM\u00B9", "lpt\u00B2", "LPT\u00B3"}) {
    EXPECT_TRUE(IsDeviceName(name)) << name;
  }
}

TEST(DeviceNames, StayDevicesWithExtensionsAndBlanks) {
  for (const char* name : {"nul.txt", "NUL .txt", "con.tar.gz", "COM1  ", "aux."}) {
    EXPECT_TRUE(IsDeviceName(name)) << name;
  }
}

TEST(DeviceNames, AreNotOtherNamesThatLookLikeThem) {
  for (const char* name : {"", ".nul", "console", "CON$", "CLOCK", "COM", "COM10", "COMA",
                           "COM\u2074", "LPT\xB2", "a.NUL"}) {
    EXPECT_FALSE(IsDeviceName(name)) << name;
  }
}

}  // namespace

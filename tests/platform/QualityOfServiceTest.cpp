#include <gtest/gtest.h>

#include <thread>

#include "platform/QualityOfService.h"

namespace quillsift {
namespace {

TEST(QualityOfServiceTest, AThreadThatRunsNoTaskIsStandard) {
  EXPECT_EQ(currentQOS(), QOSClass::standard);
}

TEST(QualityOfServiceTest, AScopeSetsTheClassOfItsThreadAndPutsItBack) {
  {
    const ScopedQOS outer(QOSClass::userInitiated);
    {
      const ScopedQOS inner(QOSClass::utility);
      EXPECT_EQ(currentQOS(), QOSClass::utility);
      std::thread([] { EXPECT_EQ(currentQOS(), QOSClass::standard); }).join();
    }
    EXPECT_EQ(currentQOS(), QOSClass::userInitiated);
  }
  EXPECT_EQ(currentQOS(), QOSClass::standard);
}

TEST(QualityOfServiceTest, TheNumbersAreThoseOfTheInterface) {
  EXPECT_EQ(static_cast<int>(QOSClass::utility), 17);
  EXPECT_EQ(static_cast<int>(QOSClass::standard), 21);
  EXPECT_EQ(static_cast<int>(QOSClass::userInitiated), 25);
}

}  // namespace
}  // namespace quillsift

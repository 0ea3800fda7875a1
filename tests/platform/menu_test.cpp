#include <gtest/gtest.h>

#include "resources/resources.h"

namespace corvane {
namespace {

TEST(Menu, ChangesByIdAndPositionReachTheListener) {
    Menu menu = loadMenu("MenuMenu");
    std::vector<std::string> changed;
    menu.setListener([&](const MenuItem& item) { changed.push_back(item.text); });

    EXPECT_TRUE(menu.check(idmGridLines));
    EXPECT_TRUE(menu.check(idmGridLines)); // no change, no report
    EXPECT_TRUE(menu.isChecked(idmGridLines));
    EXPECT_TRUE(menu.enable(AtPosition{2}));
    EXPECT_TRUE(menu.grey(idmFitted1 + 3));
    EXPECT_FALSE(menu.isEnabled(idmFitted1 + 3));
    EXPECT_EQ(changed, (std::vector<std::string>{"Show &Grid Lines", "D&isplay", "# &4"}));
    EXPECT_EQ(menu.version(), 3u);

    EXPECT_FALSE(menu.check(4711));
    EXPECT_FALSE(menu.grey(AtPosition{7}));
    EXPECT_FALSE(menu.isChecked(4711));
    EXPECT_EQ(menu.version(), 3u);
    // Copies are independent: a fresh load is in the initial state again.
    EXPECT_FALSE(loadMenu("MenuMenu").isChecked(idmGridLines));
}

} // namespace
} // namespace corvane

// CRC-32 of strings.

#include <VXC_CRC32.h>
#include <gtest/gtest.h>

#include <string>

TEST(CheckSum, IsTheCommonCrc32) {
    EXPECT_EQ(VXC_GenerateCRC32("123456789"), 0xCBF43926U);
    EXPECT_EQ(VXC_GenerateCRC32(""), 0U);
    EXPECT_EQ(VXC_GenerateCRC32("a"), 0xE8B7BE43U);
    EXPECT_EQ(VXC_GenerateCRC32(std::string(4, '\0')), 0x2144DF1CU);
    EXPECT_EQ(VXC_GenerateCRC32(std::string(4, '\xff')), 0xFFFFFFFFU);
    EXPECT_EQ(VXC_GenerateCRC32("The quick brown fox jumps over the lazy dog"), 0x414FA339U);
    EXPECT_EQ(VXC_GenerateCRC32("Global\\1D1F6415-69BD-4438-B706-07D710576930"), 0xBC991DFBU);
}

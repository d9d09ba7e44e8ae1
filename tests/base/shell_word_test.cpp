// Words of commands in messages.

#include <gtest/gtest.h>
#include "base/ShellWord.h"

#include <string>

#include "Process.h"

using vxsched::ShellWord;

TEST(ShellWord, IsPlainIfNoShellWouldChangeIt) {
    EXPECT_EQ(ShellWord("/srv/store-1/files"), "/srv/store-1/files");
}

TEST(ShellWord, IsReadBackByAShell) {
    for (const std::string& string :
         {std::string("/my dir/files"), std::string("it's"), std::string("$HOME `id` \"*\""),
          std::string("~root"), std::string("a\\b"), std::string("#a"), std::string("a;b&c|d"),
          std::string("\xe4rger"), std::string()}) {
        CProgram shell({"/bin/sh", "-c", "printf %s " + ShellWord(string)});
        EXPECT_EQ(shell.Wait(), 0);
        EXPECT_EQ(shell.Output(), string);
    }
}

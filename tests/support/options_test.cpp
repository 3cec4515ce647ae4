// The option parser, one behaviour per value kind; the refusal wording is
// checked where users see it, in the command-line tests.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/qfs_logging.h"
#include "support/qfs_memory.h"
#include "support/qfs_options.h"

namespace {

struct parsed {
    uint32_t flag = 0, flag_given = 0, help = 0;
    uint64_t number = 0, hex = 0, octal = 0;
    const char *text = nullptr;
    qfs_uint_list list{};
    const char *first = nullptr, *second = nullptr;
};

class OptionParser : public ::testing::Test {
protected:
    parsed v;
    std::vector<std::string> args_; // string values point into these
    void TearDown() override { qfs_free(v.list.elements); }
    // 1 when the arguments (after the program name) parse; the values land in `v`.
    int parse(std::vector<std::string> args) {
        qfs_free(v.list.elements);
        v = parsed{};
        args_ = std::move(args);
        args_.insert(args_.begin(), "prog");
        std::vector<char *> argv;
        for (auto &a : args_) argv.push_back(a.data());
        std::vector<qfs_option> table = {
            {1, 'f', "flag", QFS_OPTION_FLAG, &v.flag_given, &v.flag, nullptr, 1},
            {1, 'n', "number", QFS_OPTION_UINT, nullptr, &v.number, "n", 1},
            {1, 0, "hex", QFS_OPTION_UINT_HEX, nullptr, &v.hex, nullptr, 1},
            {1, 0, "oct", QFS_OPTION_UINT_OCT, nullptr, &v.octal, nullptr, 1},
            {1, 0, "list", QFS_OPTION_UINT_LIST, nullptr, &v.list, nullptr, 1},
            {1, 't', nullptr, QFS_OPTION_STRING, nullptr, &v.text, "text", 1},
            {0, 'h', "help", QFS_OPTION_FLAG, nullptr, &v.help, nullptr, 0},
            {1, 0, nullptr, QFS_OPTION_STRING, nullptr, &v.first, "first", 1},
            {0, 0, nullptr, QFS_OPTION_STRING, nullptr, &v.second, "second", 1},
        };
        testing::internal::CaptureStderr();
        const int ok = qfs_options_parse(static_cast<int>(argv.size()), argv.data(), table.data(), table.size());
        testing::internal::GetCapturedStderr();
        return ok;
    }
};

TEST_F(OptionParser, NumbersInEveryBase) {
    const struct {
        std::vector<std::string> args;
        uint64_t number, hex, octal;
    } cases[] = {
        {{"--number", "437"}, 437, 0, 0},
        {{"--number", "0x1B5"}, 437, 0, 0},
        {{"-n", "0665"}, 437, 0, 0},
        {{"-n", "18446744073709551615"}, UINT64_MAX, 0, 0},
        {{"--hex", "ff", "--oct", "17"}, 0, 255, 15},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.args[1]);
        std::vector<std::string> args = c.args;
        args.insert(args.end(), {"a", "b"});
        ASSERT_EQ(parse(args), 1);
        EXPECT_EQ(v.number, c.number);
        EXPECT_EQ(v.hex, c.hex);
        EXPECT_EQ(v.octal, c.octal);
    }
    for (const auto &bad : std::vector<std::vector<std::string>>{
             {"-n", "12a"}, {"-n", ""}, {"-n", "0x"}, {"-n", "08"}, {"-n", "18446744073709551616"},
             {"--hex", "0x10"}, {"--oct", "9"}, {"--list", "1,,2"}, {"--list", "7,4294967296"}}) {
        SCOPED_TRACE(bad[0] + " " + bad[1]);
        EXPECT_EQ(parse({bad[0], bad[1], "a", "b"}), 0);
        EXPECT_EQ(v.list.elements, nullptr);
    }
}

TEST_F(OptionParser, ListsStringsFlagsAndPositionals) {
    std::string many = "1,0x10,010,4294967295";
    for (int i = 4; i < 45; ++i) many += "," + std::to_string(i);
    ASSERT_EQ(parse({"--list", many, "-t", "-x", "-t", "later", "-f", "a", "b"}), 1);
    ASSERT_EQ(v.list.count, 45u);
    EXPECT_EQ(v.list.elements[1], 16u);
    EXPECT_EQ(v.list.elements[2], 8u);
    EXPECT_EQ(v.list.elements[3], 4294967295u);
    EXPECT_EQ(v.list.elements[44], 44u);
    EXPECT_STREQ(v.text, "later") << "the last of repeated values wins, and values may begin with a dash";
    EXPECT_EQ(v.flag, 1u);
    EXPECT_EQ(v.flag_given, 1u);
    EXPECT_STREQ(v.first, "a");
    EXPECT_STREQ(v.second, "b");

    ASSERT_EQ(parse({"--", "-f", "-n"}), 1) << "-- ends the options";
    EXPECT_STREQ(v.first, "-f");
    EXPECT_EQ(v.flag, 0u);
    EXPECT_EQ(parse({"-h"}), 1) << "an option that is not mandatory switches the positional check off";
    EXPECT_EQ(parse({"-", "b"}), 1) << "a lone dash is positional";
    // A repeated list replaces the earlier one, which the sanitizer build would report if it leaked.
    ASSERT_EQ(parse({"--list", "1,2", "--list", "3", "a", "b"}), 1);
    ASSERT_EQ(v.list.count, 1u);
    EXPECT_EQ(v.list.elements[0], 3u);
}

TEST_F(OptionParser, ShapesThatAreRefused) {
    const std::vector<std::vector<std::string>> cases = {
        {"--fla", "a", "b"},      // no abbreviations
        {"--number=3", "a", "b"}, // no "=" forms
        {"-fh", "a", "b"},        // no grouped letters
        {"--first", "a", "b"},    // a positional's name is no option
        {"a", "b", "c"},          // one positional too many
        {"a", "-n"},              // a value missing
        {"-f"},                   // the positionals missing
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c[0]);
        EXPECT_EQ(parse(c), 0);
    }
}

} // namespace

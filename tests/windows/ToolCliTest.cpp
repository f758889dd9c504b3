// The command lines of qxhost.exe, fusion-sim.exe and logread.exe, from the
// table in data/tool-cases.txt: each case runs the tool with its standard
// output and error in files and checks the exit code and what each says.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "TestSupport.h"

namespace {

using namespace testsupport;

std::string Trim(const std::string& text)
{
    const auto begin = text.find_first_not_of(" \t\r");
    if (begin == std::string::npos)
        return {};
    return text.substr(begin, text.find_last_not_of(" \t\r") - begin + 1);
}

std::vector<std::string> Split(const std::string& text, const std::string& separator)
{
    std::vector<std::string> parts;
    std::size_t at = 0;
    for (std::size_t next; (next = text.find(separator, at)) != std::string::npos; at = next + separator.size())
        parts.push_back(Trim(text.substr(at, next - at)));
    parts.push_back(Trim(text.substr(at)));
    return parts;
}

struct ToolCase {
    std::vector<std::string> columns;  // tool, arguments, exit code, stdout, stderr
    int line = 0;
};
void PrintTo(const ToolCase& c, std::ostream* out)
{
    *out << c.columns[0] << " " << c.columns[1];
}

std::vector<ToolCase> LoadCases()
{
    std::vector<ToolCase> cases;
    std::ifstream in(QX_TOOL_CASES);
    if (!in)
        ADD_FAILURE() << "cannot read " << QX_TOOL_CASES;
    std::string line;
    for (int number = 1; std::getline(in, line); ++number) {
        if (Trim(line).empty() || line[0] == '#')
            continue;
        cases.push_back({Split(line, "|"), number});
        if (cases.back().columns.size() != 5)
            ADD_FAILURE() << "tool-cases.txt:" << number << ": expected 5 columns";
    }
    return cases;
}

void ExpectContains(const std::string& what, const std::string& output, const std::string& wanted)
{
    if (wanted.empty())
        return;
    if (wanted == "(nothing)") {
        EXPECT_EQ("", output) << what;
        return;
    }
    for (const std::string& part : Split(wanted, "&&"))
        EXPECT_NE(std::string::npos, output.find(part)) << what << " lacks \"" << part << "\":\n" << output;
}

class ToolCliTest : public testing::TestWithParam<ToolCase> {};

TEST_P(ToolCliTest, ExitCodeAndOutput)
{
    const auto& c = GetParam().columns;
    SCOPED_TRACE("tool-cases.txt:" + std::to_string(GetParam().line));
    const std::wstring dir = TempDir(L"tool-cli");
    const std::wstring out = dir + L"\\out.txt", err = dir + L"\\err.txt";
    const std::wstring command = L"\"" + ExeDir() + Widen(c[0]) + L".exe\" " + Widen(c[1]);
    HANDLE process = StartProcess(command, out, err);
    ASSERT_NE(nullptr, process) << "cannot start " << c[0];
    EXPECT_EQ(std::stoi(c[2]), WaitChild(process, 30000)) << "stderr: " << ReadFileBytes(err);
    ExpectContains("standard output", ReadFileBytes(out), c[3]);
    ExpectContains("standard error", ReadFileBytes(err), c[4]);
    RemoveTree(dir);
}

INSTANTIATE_TEST_SUITE_P(Cases, ToolCliTest, testing::ValuesIn(LoadCases()),
                         [](const testing::TestParamInfo<ToolCase>& info) {
                             return "line" + std::to_string(info.param.line);
                         });

}  // namespace

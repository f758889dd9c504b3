// The version resource of every shipped binary, read back the way Explorer and
// installers read it: GetFileVersionInfoW and VerQueryValueW.
//
//   release_version_tests [FOLDER]
// FOLDER holds QXAttentionPlugin.dll, qxhost.exe, fusion-sim.exe and
// logread.exe; by default the folder of this program (the build's bin/).
// scripts and the archive check run it on the unpacked archive's bin/ as well.
#include <windows.h>

#include <gtest/gtest.h>

#include <cctype>
#include <cstdio>
#include <string>
#include <vector>

namespace
{

std::wstring g_folder;

struct Shipped
{
    const wchar_t* file;
    DWORD fileType;
};

const Shipped kShipped[] = {
    {L"QXAttentionPlugin.dll", VFT_DLL},
    {L"qxhost.exe", VFT_APP},
    {L"fusion-sim.exe", VFT_APP},
    {L"logread.exe", VFT_APP},
};

std::wstring Widen(const char* text)
{
    std::wstring out;
    for (; *text != '\0'; ++text)
        out += static_cast<wchar_t>(static_cast<unsigned char>(*text));
    return out;
}

class VersionResource : public testing::TestWithParam<Shipped>
{
protected:
    void SetUp() override
    {
        path_ = g_folder + GetParam().file;
        DWORD handle = 0;
        const DWORD size = GetFileVersionInfoSizeW(path_.c_str(), &handle);
        ASSERT_NE(size, 0u) << "no version resource in " << testing::PrintToString(path_)
                            << ", error " << GetLastError();
        data_.resize(size);
        ASSERT_TRUE(GetFileVersionInfoW(path_.c_str(), 0, size, data_.data()));
    }

    // A string of the US English, Unicode block "040904b0".
    std::wstring Value(const wchar_t* name)
    {
        const std::wstring key = std::wstring(L"\\StringFileInfo\\040904b0\\") + name;
        void* text = nullptr;
        UINT length = 0;
        if (!VerQueryValueW(data_.data(), key.c_str(), &text, &length) || length == 0)
            return L"<missing>";
        return static_cast<const wchar_t*>(text);
    }

    std::wstring path_;
    std::vector<char> data_;
};

TEST_P(VersionResource, NamesTheProductVersionAndMaker)
{
    EXPECT_EQ(Value(L"CompanyName"), L"Vantoq");
    EXPECT_EQ(Value(L"ProductName"), L"QX Attention Plug-in");
    EXPECT_EQ(Value(L"FileVersion"), Widen(QX_EXPECTED_VERSION));
    EXPECT_EQ(Value(L"ProductVersion"), Widen(QX_EXPECTED_VERSION));
    EXPECT_EQ(Value(L"OriginalFilename"), GetParam().file);
    EXPECT_NE(Value(L"FileDescription"), L"<missing>");
    EXPECT_EQ(Value(L"FileDescription").find(L"TEST"), std::wstring::npos)
        << "the test variant's description in a shipped file";

    // The translation table points at the block read above.
    struct Translation
    {
        WORD language;
        WORD codePage;
    }* translation = nullptr;
    UINT length = 0;
    ASSERT_TRUE(VerQueryValueW(data_.data(), L"\\VarFileInfo\\Translation",
                               reinterpret_cast<void**>(&translation), &length));
    ASSERT_GE(length, sizeof(Translation));
    EXPECT_EQ(translation->language, 0x0409);
    EXPECT_EQ(translation->codePage, 1200);
}

TEST_P(VersionResource, FixedInfoMatchesTheStrings)
{
    VS_FIXEDFILEINFO* fixed = nullptr;
    UINT length = 0;
    ASSERT_TRUE(VerQueryValueW(data_.data(), L"\\", reinterpret_cast<void**>(&fixed), &length));
    ASSERT_EQ(length, sizeof(VS_FIXEDFILEINFO));
    EXPECT_EQ(fixed->dwSignature, 0xFEEF04BDu);
    unsigned major = 0, minor = 0, patch = 0;
    ASSERT_EQ(std::sscanf(QX_EXPECTED_VERSION, "%u.%u.%u", &major, &minor, &patch), 3);
    EXPECT_EQ(fixed->dwFileVersionMS, (major << 16) | minor);
    EXPECT_EQ(fixed->dwFileVersionLS, patch << 16);
    EXPECT_EQ(fixed->dwProductVersionMS, (major << 16) | minor);
    EXPECT_EQ(fixed->dwProductVersionLS, patch << 16);
    EXPECT_EQ(fixed->dwFileType, GetParam().fileType);
    EXPECT_EQ(fixed->dwFileOS, static_cast<DWORD>(VOS_NT_WINDOWS32));
    EXPECT_EQ(fixed->dwFileFlags & VS_FF_DEBUG, 0u);
}

INSTANTIATE_TEST_SUITE_P(Shipped, VersionResource, testing::ValuesIn(kShipped),
                         [](const testing::TestParamInfo<Shipped>& info) {
                             std::string name;
                             for (const wchar_t* c = info.param.file; *c != L'\0'; ++c)
                                 name += std::isalnum(static_cast<unsigned char>(*c)) ? static_cast<char>(*c) : '_';
                             return name;
                         });

}  // namespace

int main(int argc, char** argv)
{
    testing::InitGoogleTest(&argc, argv);
    if (argc > 1) {
        g_folder = Widen(argv[1]);
    } else {
        wchar_t self[MAX_PATH] = {};
        GetModuleFileNameW(nullptr, self, MAX_PATH);
        g_folder = self;
        g_folder.erase(g_folder.find_last_of(L"\\/") + 1);
    }
    if (!g_folder.empty() && g_folder.back() != L'\\' && g_folder.back() != L'/')
        g_folder += L'\\';
    std::printf("version resources in %ls\n", g_folder.c_str());
    return RUN_ALL_TESTS();
}

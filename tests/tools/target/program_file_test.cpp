// Which programs can be tracked, and why others cannot.
#include "tools/target/program_file.h"

#include <elf.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstring>
#include <filesystem>

#include "tests/temporary_directory.h"
#include "tools/base/user_error.h"

namespace memleak {
namespace {

class FindProgramTest : public testing::Test {
 protected:
  std::string Refusal(const std::string& name, const std::string& path = "") const {
    try {
      FindProgram(name, path);
    } catch (const UserError& error) {
      return error.what();
    }
    return "accepted";
  }
  std::string Executable(const std::string& name, const std::string& text) const {
    std::string path = directory_.Write(name, text);
    chmod(path.c_str(), 0755);
    return path;
  }
  template <typename Header>
  std::string Elf(const std::string& name, Header header, unsigned char width) const {
    std::memcpy(header.e_ident, ELFMAG, SELFMAG);
    header.e_ident[EI_CLASS] = width;
    header.e_ident[EI_DATA] = ELFDATA2LSB;
    header.e_type = ET_EXEC;
    return Executable(name, std::string(reinterpret_cast<char*>(&header), sizeof(header)));
  }

  TemporaryDirectory directory_;
};

#define EXPECT_REFUSED(refusal, part) \
  EXPECT_NE((refusal).find(part), std::string::npos) << (refusal)

TEST_F(FindProgramTest, AcceptsDynamicProgramsAndScriptsFromThePath) {
  const Program program = FindProgram(FIXTURE_SLEEPER, "");
  EXPECT_EQ(program.image.machine, OwnMachine());
  EXPECT_FALSE(program.is_script);
  const std::string inner = Executable("inner", "#! " FIXTURE_SLEEPER " -x\n");
  const Program script = FindProgram(Executable("outer", "#!" + inner + "\necho\n"), "");
  EXPECT_TRUE(script.is_script);
  EXPECT_EQ(script.image_path, FIXTURE_SLEEPER);

  std::filesystem::create_directory(directory_.Path("first"));
  directory_.Write("first/outer", "not executable");
  const std::string path = "/nonexistent:" + directory_.Path("first") + ":" + directory_.Path("");
  EXPECT_EQ(FindProgram("outer", path).image_path, FIXTURE_SLEEPER);
  EXPECT_REFUSED(Refusal("outer", directory_.Path("first")), "not executable");
  EXPECT_REFUSED(Refusal("outer", "/nonexistent"), "not found in PATH");
}

TEST_F(FindProgramTest, RefusesWhatCannotBeTracked) {
  EXPECT_REFUSED(Refusal(FIXTURE_STATIC), "static");
  EXPECT_REFUSED(Refusal(Elf("narrow", Elf32_Ehdr{}, ELFCLASS32)), "32-bit");
  Elf64_Ehdr other{};
  other.e_machine = EM_RISCV;
  EXPECT_REFUSED(Refusal(Elf("riscv", other, ELFCLASS64)), "another architecture");
  EXPECT_REFUSED(Refusal(Executable("text", "hello")), "not an ELF program");
  EXPECT_REFUSED(Refusal(Executable("cut", std::string(ELFMAG "\2\1\1", 7))), "not an ELF program");
  const std::string loop = directory_.Path("loop");
  EXPECT_REFUSED(Refusal(Executable("loop", "#!" + loop)), "without end");
  EXPECT_REFUSED(Refusal(Executable("orphan", "#!/no/such/shell\n")), "program not found");
  EXPECT_REFUSED(Refusal(directory_.Path("")), "not a program");
  const std::string setuid = directory_.Path("setuid");
  std::filesystem::copy_file(FIXTURE_SLEEPER, setuid);
  chmod(setuid.c_str(), 04755);
  EXPECT_REFUSED(Refusal(setuid), "setuid");
}

}  // namespace
}  // namespace memleak

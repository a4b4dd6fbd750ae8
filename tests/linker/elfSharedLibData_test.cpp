// The index of one library: lookups in real libraries, and damaged ones built in memory.
#include "linker/elfSharedLibData.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstddef>
#include <cstring>
#include <memory>
#include <string>

#include "arch/relocation.h"
#include "tests/records/log_capture.h"

namespace lumora::linker {
namespace {

elfSharedLibData IndexLoaded(const char* path) {
  struct Search {
    const char* path;
    elfSharedLibData found;
  } search{path, {}};
  dl_iterate_phdr(
      [](dl_phdr_info* info, std::size_t, void* data) {
        auto& wanted = *static_cast<Search*>(data);
        if (std::strcmp(info->dlpi_name, wanted.path) == 0) wanted.found = elfSharedLibData(info);
        return 0;
      },
      &search);
  return search.found;
}

class RealLibrary : public testing::TestWithParam<const char*> {};

TEST_P(RealLibrary, FindsSymbolsAndSlots) {
  void* handle = dlopen(GetParam(), RTLD_NOW);
  ASSERT_NE(handle, nullptr) << dlerror();
  const elfSharedLibData library = IndexLoaded(GetParam());
  ASSERT_TRUE(library);
  EXPECT_TRUE(LogLines().empty());
  EXPECT_EQ(library.find_symbol_by_name("getppi"), nullptr);

  const Elf64_Sym* defined = library.find_symbol_by_name("fixture_defined");
  ASSERT_NE(defined, nullptr);
  void* address = reinterpret_cast<void*>(library.load_bias_ + defined->st_value);
  EXPECT_EQ(address, dlsym(handle, "fixture_defined"));

  // Imported functions are in no hash table for definitions: only the relocations name them.
  const Elf64_Sym* imported = library.find_symbol_by_name("getppid");
  ASSERT_NE(imported, nullptr);
  EXPECT_EQ(imported->st_shndx, SHN_UNDEF);
  const auto slots = library.get_plt_relocations(imported);
  ASSERT_EQ(slots.size(), 1U);
  EXPECT_EQ(library.get_plt_relocations(*slots[0]), slots);
  const auto own = library.get_plt_relocations(defined);
  ASSERT_EQ(own.size(), 1U);
  EXPECT_EQ(*own[0], address);

  const bool gnu = library.gnu_nbucket_ != 0;
  EXPECT_EQ(library.gnu_find_symbol_by_name("fixture_defined"), gnu ? defined : nullptr);
  dlclose(handle);
  EXPECT_FALSE(library);
}
INSTANTIATE_TEST_SUITE_P(HashStyles, RealLibrary,
                         testing::Values(LINKER_FIXTURE_gnu, LINKER_FIXTURE_sysv,
                                         LINKER_FIXTURE_both));

constexpr std::uint32_t GnuHash(const char* name) {
  std::uint32_t hash = 5381;
  for (; *name != '\0'; ++name) hash = hash * 33 + static_cast<unsigned char>(*name);
  return hash;
}

/// A library of one segment that ends with the memory it is in, so that AddressSanitizer sees every
/// step outside.
struct Image {
  struct GnuTable {
    std::uint32_t nbucket, symndx, bloom_count, bloom_shift;
    std::uint64_t bloom[3];
    std::uint32_t buckets[1], chains[2];
  };
  struct ElfTable {
    std::uint32_t nbucket, nchain, buckets[1], chains[3];
  };

  std::uint64_t unused = 0;
  void* slots[2] = {this, &unused};
  Elf64_Rela plt[2] = {Relocation(0, 1), Relocation(1, 2)};
  // No lookup reaches the middle Bloom word with mask 2.
  GnuTable gnu = {1,
                  1,
                  3,
                  6,
                  {~std::uint64_t{0}, 0, ~std::uint64_t{0}},
                  {1},
                  {GnuHash("first") & ~1U, GnuHash("second") | 1U}};
  ElfTable elf = {1, 3, {1}, {0, 2, 0}};
  Elf64_Dyn dynamic[7] = {Entry(DT_GNU_HASH, offsetof(Image, gnu)),
                          Entry(DT_STRTAB, offsetof(Image, strings)),
                          Entry(DT_SYMTAB, offsetof(Image, symbols)),
                          Entry(DT_PLTRELSZ, sizeof(plt)),
                          Entry(DT_JMPREL, offsetof(Image, plt)),
                          Entry(DT_NULL, 0),
                          Entry(DT_NULL, 0)};
  Elf64_Sym symbols[3] = {Symbol(0), Symbol(1), Symbol(7)};
  // The last name reaches the end of the segment.
  char strings[16] = "\0first\0second\0";

  static Elf64_Dyn Entry(std::int64_t tag, std::uint64_t value) { return {tag, {value}}; }
  static Elf64_Sym Symbol(std::uint32_t name) {
    Elf64_Sym symbol{};
    symbol.st_name = name;
    return symbol;
  }
  static Elf64_Rela Relocation(std::uint64_t slot, std::uint64_t symbol) {
    return {offsetof(Image, slots) + slot * sizeof(void*),
            ELF64_R_INFO(symbol, arch::kJumpSlotRelocation), 0};
  }

  elfSharedLibData Index() {
    Elf64_Phdr headers[2] = {};
    headers[0].p_type = PT_LOAD;
    headers[0].p_flags = PF_R | PF_W;
    headers[0].p_memsz = sizeof(Image);
    headers[1].p_type = PT_DYNAMIC;
    headers[1].p_vaddr = offsetof(Image, dynamic);
    dl_phdr_info info{};
    info.dlpi_addr = reinterpret_cast<std::uint64_t>(this);
    info.dlpi_name = "libcrafted.so";
    info.dlpi_phdr = headers;
    info.dlpi_phnum = 2;
    LogLines().clear();
    errno = ERANGE;
    const elfSharedLibData library(&info);
    EXPECT_EQ(errno, ERANGE);
    return library;
  }
};

bool Logged(const std::string& text) {
  return LogLines().size() == 1 && LogLines()[0].find(text) != std::string::npos;
}

TEST(CraftedLibrary, OddBloomCountIsUsedAsItIs) {
  const auto image = std::make_unique<Image>();
  const elfSharedLibData library = image->Index();
  EXPECT_TRUE(Logged("linker/elfSharedLibData.cpp")) << LogLines().size();
  EXPECT_TRUE(Logged("] bloom_size_ not power of 2"));
  EXPECT_EQ(library.bloom_size_, 2U);
  EXPECT_EQ(library.gnu_find_symbol_by_name("first"), &image->symbols[1]);
  EXPECT_EQ(library.find_symbol_by_name("second"), &image->symbols[2]);
  const auto slots = library.get_plt_relocations(&image->symbols[2]);
  ASSERT_EQ(slots.size(), 1U);
  EXPECT_EQ(slots[0], &image->slots[1]);
  // Nothing that the loader knows lies at these addresses.
  EXPECT_FALSE(library);
}

TEST(CraftedLibrary, TablesOutsideTheSegmentsSkipIt) {
  struct Damage {
    const char* what;
    void (*make)(Image&);
  };
  constexpr std::uint64_t kEnd = sizeof(Image);
  const Damage damages[] = {
      {"string table", [](Image& i) { i.dynamic[1].d_un.d_ptr = kEnd; }},
      {"symbol table", [](Image& i) { i.dynamic[2].d_un.d_ptr = kEnd - 8; }},
      {"PLT relocations", [](Image& i) { i.dynamic[3].d_un.d_val = ~std::uint64_t{0}; }},
      {"symbol of a PLT relocation", [](Image& i) { i.plt[1] = Image::Relocation(1, 1000); }},
      {"slot of a PLT relocation", [](Image& i) { i.plt[0].r_offset = kEnd - 4; }},
      {"GNU hash table", [](Image& i) { i.dynamic[0].d_un.d_ptr = kEnd - 8; }},
      {"GNU hash table", [](Image& i) { i.gnu.bloom_count = ~0U; }},
      {"GNU hash table", [](Image& i) { i.gnu.bloom_count = 0; }},
      {"ELF hash table",
       [](Image& i) {
         i.dynamic[0] = Image::Entry(DT_HASH, offsetof(Image, elf));
         i.elf.nchain = ~0U;
       }},
      {"end of the dynamic section",
       [](Image& i) {
         i.dynamic[0].d_tag = DT_DEBUG;
         // All that follows the section in the segment is taken for entries without a meaning.
         for (std::size_t at = 5; at < 7; ++at) i.dynamic[at].d_tag = DT_DEBUG;
         std::memset(i.symbols, 1, sizeof(i.symbols) + sizeof(i.strings));
       }},
      {"relocations",
       [](Image& i) {
         i.dynamic[5] = i.dynamic[4];
         i.dynamic[0] = Image::Entry(DT_RELA, kEnd - 24);
         i.dynamic[6] = i.dynamic[4];
         i.dynamic[4] = Image::Entry(DT_RELASZ, 48);
       }},
  };
  for (const Damage& damage : damages) {
    const auto image = std::make_unique<Image>();
    image->gnu.bloom_count = 1;
    damage.make(*image);
    const elfSharedLibData library = image->Index();
    EXPECT_TRUE(Logged("skipped libcrafted.so: " + std::string(damage.what) + " outside"))
        << damage.what << ": " << (LogLines().empty() ? "no line" : LogLines()[0]);
    EXPECT_EQ(library.find_symbol_by_name("first"), nullptr) << damage.what;
    EXPECT_TRUE(library.get_plt_relocations(image->slots[0]).empty()) << damage.what;
    EXPECT_FALSE(library) << damage.what;
  }
}

TEST(CraftedLibrary, DamagedChainsAndNamesEndLookups) {
  const auto image = std::make_unique<Image>();
  image->gnu.bloom_shift = 200;
  image->gnu.chains[1] = 0;  // no end of the chain
  EXPECT_EQ(image->Index().gnu_find_symbol_by_name("third"), nullptr);
  for (const std::uint32_t bucket : {0U, 3U, ~0U}) {
    image->gnu.buckets[0] = bucket;
    EXPECT_EQ(image->Index().gnu_find_symbol_by_name("first"), nullptr) << bucket;
  }
  image->gnu.buckets[0] = 1;
  image->gnu.symndx = ~0U;
  EXPECT_EQ(image->Index().gnu_find_symbol_by_name("first"), nullptr);

  image->dynamic[0] = Image::Entry(DT_HASH, offsetof(Image, elf));
  EXPECT_EQ(image->Index().find_symbol_by_name("second"), &image->symbols[2]);
  image->elf.chains[2] = 1;  // a circle
  EXPECT_EQ(image->Index().find_symbol_by_name("third"), nullptr);
  image->elf.chains[1] = 1000;
  EXPECT_EQ(image->Index().find_symbol_by_name("third"), nullptr);

  // A name that starts outside, and one without an end.
  image->symbols[1].st_name = ~0U;
  std::memset(image->strings, 'x', sizeof(image->strings));
  EXPECT_EQ(image->Index().find_symbol_by_name("xxxxxxxxx"), nullptr);
}

}  // namespace
}  // namespace lumora::linker

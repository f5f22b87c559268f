// The shared object's public surface, read from its dynamic symbol table,
// and a call through it the way a host makes one.
#include <dlfcn.h>
#include <elf.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "library/library_test_util.h"
#include "videoanalytics.h"

namespace {

struct DynamicSymbol {
  std::string name;
  unsigned type;
};

// Defined global and weak symbols of the ELF64 file's .dynsym, every offset
// checked against the file size before use.
bool ReadDefinedDynamicSymbols(const std::string& path, std::vector<DynamicSymbol>* out,
                               std::string* why) {
  std::ifstream file(path, std::ios::binary);
  std::vector<unsigned char> bytes((std::istreambuf_iterator<char>(file)),
                                   std::istreambuf_iterator<char>());
  auto fits = [&](uint64_t offset, uint64_t size) {
    return offset <= bytes.size() && size <= bytes.size() - offset;
  };
  Elf64_Ehdr header;
  if (!fits(0, sizeof(header))) return *why = "too short", false;
  std::memcpy(&header, bytes.data(), sizeof(header));
  if (std::memcmp(header.e_ident, ELFMAG, SELFMAG) != 0 || header.e_ident[EI_CLASS] != ELFCLASS64)
    return *why = "not ELF64", false;
  if (header.e_shentsize != sizeof(Elf64_Shdr) ||
      !fits(header.e_shoff, uint64_t{header.e_shnum} * sizeof(Elf64_Shdr)))
    return *why = "bad section table", false;
  std::vector<Elf64_Shdr> sections(header.e_shnum);
  std::memcpy(sections.data(), bytes.data() + header.e_shoff,
              sections.size() * sizeof(Elf64_Shdr));
  for (const Elf64_Shdr& section : sections) {
    if (section.sh_type != SHT_DYNSYM) continue;
    if (section.sh_entsize != sizeof(Elf64_Sym) || !fits(section.sh_offset, section.sh_size) ||
        section.sh_link >= sections.size())
      return *why = "bad .dynsym", false;
    const Elf64_Shdr& strings = sections[section.sh_link];
    if (!fits(strings.sh_offset, strings.sh_size)) return *why = "bad .dynstr", false;
    for (uint64_t i = 0; i < section.sh_size / sizeof(Elf64_Sym); ++i) {
      Elf64_Sym symbol;
      std::memcpy(&symbol, bytes.data() + section.sh_offset + i * sizeof(Elf64_Sym),
                  sizeof(symbol));
      const unsigned bind = ELF64_ST_BIND(symbol.st_info);
      if (symbol.st_shndx == SHN_UNDEF || (bind != STB_GLOBAL && bind != STB_WEAK)) continue;
      if (symbol.st_name >= strings.sh_size) return *why = "bad symbol name", false;
      const char* name =
          reinterpret_cast<const char*>(bytes.data() + strings.sh_offset + symbol.st_name);
      out->push_back({std::string(name, strnlen(name, strings.sh_size - symbol.st_name)),
                      ELF64_ST_TYPE(symbol.st_info)});
    }
    return true;
  }
  return *why = "no .dynsym", false;
}

const std::set<std::string> kExported = {
    "CreateModel",           "DisposeModel",
    "DetectBoxes",           "Predict",
    "PredictVector",         "PredictBatch",
    "GetGender",             "GetFaceRecallMultiple",
    "GetPatchDetections",    "CreateDeviceListProcessor",
    "GetComputeDevices",     "DisposeComputeDeviceInfo",
    "DisposeDeviceListProcessor", "DisposeProcessResult",
    "DisposeModelProcessResult",  "DisposeFloatVector",
    "DisposeBoxDetectionResult",
};

TEST(SharedObject, ExportsExactlyTheCFunctions) {
  std::vector<DynamicSymbol> symbols;
  std::string why;
  ASSERT_TRUE(ReadDefinedDynamicSymbols(VA_SHARED_LIBRARY, &symbols, &why)) << why;
  std::set<std::string> names;
  std::string listed;
  for (const DynamicSymbol& symbol : symbols) {
    names.insert(symbol.name);
    listed += " " + symbol.name;
    EXPECT_EQ(symbol.type, static_cast<unsigned>(STT_FUNC)) << symbol.name;
  }
  EXPECT_EQ(symbols.size(), names.size()) << "a name defined twice";
  EXPECT_EQ(names, kExported);
  std::printf("exported:%s\n", listed.c_str());
}

class LoadedLibrary : public ::testing::Test {
 protected:
  void SetUp() override {
    handle_ = dlopen(VA_SHARED_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(handle_, nullptr) << dlerror();
  }
  void TearDown() override {
    if (handle_ != nullptr) dlclose(handle_);
  }
  template <typename Function>
  Function* Resolve(const char* name) {
    return reinterpret_cast<Function*>(dlsym(handle_, name));
  }
  void* handle_ = nullptr;
};

TEST_F(LoadedLibrary, EveryFunctionResolvesUnmangled) {
  for (const std::string& name : kExported) EXPECT_NE(dlsym(handle_, name.c_str()), nullptr) << name;
  // Internal classes stay hidden.
  EXPECT_EQ(dlsym(handle_, "_ZN13MemoryManager17CreateFloatVectorEi"), nullptr);
}

TEST_F(LoadedLibrary, UnknownTypeThroughTheSharedObject) {
  auto* create = Resolve<decltype(CreateModel)>("CreateModel");
  auto* release = Resolve<decltype(DisposeModelProcessResult)>("DisposeModelProcessResult");
  ASSERT_NE(create, nullptr);
  ASSERT_NE(release, nullptr);
  const std::string graph = library_test::IdentityGraph();
  int marker = 0;
  ProcessResult result{&marker, nullptr};
  EXPECT_EQ(create(27, library_test::OptionsFor(graph), &result), nullptr);
  ASSERT_NE(result.error, nullptr);
  EXPECT_EQ(result.error->code, 2);
  EXPECT_EQ(result.error->message, nullptr);
  EXPECT_EQ(result.payload, nullptr);
  release(&result);
  EXPECT_EQ(result.error, nullptr);
}

}  // namespace

#include "ctl/build_id.h"

#include <cstdint>
#include <cstdio>
#include <cstring>

#include <elf.h>
#include <link.h>

namespace tavlo::ctl {

namespace {

size_t AlignUp(size_t size, size_t alignment) {
  return (size + alignment - 1) / alignment * alignment;
}

std::string Hexadecimal(const unsigned char* bytes, size_t count) {
  std::string text;
  for (size_t i = 0; i < count; ++i) {
    char digits[3] = {};
    std::snprintf(digits, sizeof digits, "%02x", static_cast<unsigned>(bytes[i]));
    text += digits;
  }
  return text;
}

// Walks a segment of notes; each is a header, a name and a description, both padded.
std::string BuildIdIn(const unsigned char* notes, size_t size, size_t alignment) {
  ElfW(Nhdr) header = {};
  for (size_t offset = 0; offset + sizeof header <= size;) {
    std::memcpy(&header, notes + offset, sizeof header);
    const size_t name = offset + sizeof header;
    const size_t description = offset + AlignUp(sizeof header + header.n_namesz, alignment);
    if (header.n_type == NT_GNU_BUILD_ID && header.n_namesz == sizeof ELF_NOTE_GNU &&
        std::memcmp(notes + name, ELF_NOTE_GNU, sizeof ELF_NOTE_GNU) == 0) {
      return Hexadecimal(notes + description, header.n_descsz);
    }
    offset = description + AlignUp(header.n_descsz, alignment);
  }
  return {};
}

int FindBuildId(dl_phdr_info* object, size_t /*size*/, void* result) {
  for (int i = 0; i < object->dlpi_phnum; ++i) {
    const ElfW(Phdr)& segment = object->dlpi_phdr[i];
    auto* const id = static_cast<std::string*>(result);
    if (segment.p_type == PT_NOTE && id->empty()) {
      const uintptr_t address = object->dlpi_addr + segment.p_vaddr;
      // NOLINTNEXTLINE(performance-no-int-to-ptr): the loader gives numbers
      *id = BuildIdIn(reinterpret_cast<const unsigned char*>(address), segment.p_memsz,
                      segment.p_align == 8 ? 8 : 4);
    }
  }
  return 1;  // the program is the first object, and no other is asked
}

}  // namespace

std::string OwnBuildId() {
  std::string id;
  ::dl_iterate_phdr(FindBuildId, &id);
  return id;
}

}  // namespace tavlo::ctl

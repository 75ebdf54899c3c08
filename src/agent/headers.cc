#include "agent/headers.h"

#include <event2/keyvalq_struct.h>
#include <strings.h>

namespace tavlo {

const char* FindHeader(const evkeyvalq* headers, const char* name) {
  for (const evkeyval* header = headers->tqh_first; header != nullptr;
       header = header->next.tqe_next) {
    if (::strcasecmp(header->key, name) == 0) {
      return header->value;
    }
  }
  return nullptr;
}

}  // namespace tavlo

#include "text_argument.h"

#include <cstring>

#include "boundary.h"

namespace PyVelmot {

bool is_text(PyObject* obj) { return PyUnicode_Check(obj) || PyBytes_Check(obj); }

std::string text_up_to_nul(PyObject* obj) {
  const char* chars = nullptr;
  if (PyUnicode_Check(obj)) {
    chars = PyUnicode_AsUTF8(obj);
    if (chars == nullptr) {
      PyErr_Clear();
      throw ModuleError("text argument cannot be encoded as UTF-8");
    }
  } else if (PyBytes_Check(obj)) {
    chars = PyBytes_AS_STRING(obj);
  } else {
    throw ModuleError("expected str or bytes");
  }
  return std::string(chars, std::strlen(chars));
}

}  // namespace PyVelmot

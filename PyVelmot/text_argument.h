#ifndef PYVELMOT_TEXT_ARGUMENT_H
#define PYVELMOT_TEXT_ARGUMENT_H

#include "numpy_api.h"

#include <string>

namespace PyVelmot {

// Whether obj is text: a str (its UTF-8 form) or bytes.
bool is_text(PyObject* obj);

// The text of a str or bytes object, cut at the first NUL character, as a C
// string would have been. Throws ModuleError if obj is neither, or if a str
// cannot be encoded.
std::string text_up_to_nul(PyObject* obj);

}  // namespace PyVelmot

#endif

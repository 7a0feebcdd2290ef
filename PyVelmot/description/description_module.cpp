// PyVelmot_description: the description file reader, for the command line.
// A binding of its own, so that the 34-function learning module keeps
// exactly its method table.
//
//   read_description(path) -> dict     (a missing file gives the defaults)
//   parse_description(text) -> dict   (the text of a description file)
//
// Reader errors arrive as RuntimeError with the library's text, line number
// included ("error (line 3): invalid command: labels\n").

#include "boundary.h"

#include <fstream>
#include <sstream>
#include <string>

#include "text_argument.h"
#include "velmot/dataset/dataset_description.h"
#include "velmot/io/dataset_io.h"

namespace {

using PyVelmot::ModuleError;
using Velmot::DataSetDescription;

// Builds a new reference or throws, so a failure part-way frees what was
// made through the owner below.
class Owned {
public:
  explicit Owned(PyObject* object) : object(object) {
    if (object == nullptr) throw ModuleError("out of memory building the description");
  }
  ~Owned() { Py_XDECREF(object); }
  Owned(const Owned&) = delete;
  Owned& operator=(const Owned&) = delete;
  PyObject* get() const { return object; }
  PyObject* release() {
    PyObject* released = object;
    object = nullptr;
    return released;
  }

private:
  PyObject* object;
};

void set_item(PyObject* dict, const char* key, PyObject* value) {
  Owned owned(value);
  if (PyDict_SetItemString(dict, key, owned.get()) < 0) throw ModuleError("cannot build the description");
}

void set_item(PyObject* dict, PyObject* key, PyObject* value) {
  Owned owned_key(key), owned_value(value);
  if (PyDict_SetItem(dict, owned_key.get(), owned_value.get()) < 0) {
    throw ModuleError("cannot build the description");
  }
}

const char* labeling_name(Velmot::LabelingType labeling) {
  switch (labeling) {
    case Velmot::PlusOneMinusOne:
      return "plus-one-minus-one";
    case Velmot::Regression:
      return "regression";
    default:
      return "discrete-zero-onward";
  }
}

// Class names by code, ascending by code; when several names share a code,
// the one the map reads back for it.
PyObject* labels_by_code(const Velmot::StringIntMap& labels) {
  Owned dict(PyDict_New());
  for (const int code : labels.get_codes()) {
    set_item(dict.get(), PyLong_FromLong(code), PyUnicode_FromString(labels.get_string_label(code).c_str()));
  }
  return dict.release();
}

PyObject* description_to_dict(const DataSetDescription& description) {
  Owned dict(PyDict_New());
  set_item(dict.get(), "labeling", PyUnicode_FromString(labeling_name(description.get_labeling())));
  set_item(dict.get(), "class_column", PyLong_FromLong(description.get_class_column()));
  set_item(dict.get(), "num_features", PyLong_FromLong(description.get_num_features()));
  set_item(dict.get(), "number_labeling", PyBool_FromLong(description.is_number_labeling()));
  set_item(dict.get(), "labels", labels_by_code(description.get_label_map()));

  Owned ignored(PyList_New(0));
  for (const int column : description.get_ignored_columns()) {
    Owned item(PyLong_FromLong(column));
    if (PyList_Append(ignored.get(), item.get()) < 0) throw ModuleError("cannot build the description");
  }
  set_item(dict.get(), "ignored_columns", ignored.release());

  Owned names(PyDict_New());
  for (const auto& [feature, name] : description.get_feature_names()) {
    set_item(names.get(), PyLong_FromLong(feature), PyUnicode_FromString(name.c_str()));
  }
  set_item(dict.get(), "feature_names", names.release());
  return dict.release();
}

PyObject* read_text(const std::string& text) {
  const Velmot::VelmotDescriptionReader reader;
  std::istringstream in(text);
  return description_to_dict(reader.read(in));
}

PyObject* read_description_wrap(PyObject*, PyObject* args) {
  PyObject* path = nullptr;
  if (!PyArg_ParseTuple(args, "O:read_description", &path)) return nullptr;
  return PyVelmot::guarded_call([&]() -> PyObject* {
    const std::string name = PyVelmot::text_up_to_nul(path);
    std::ifstream file(name);
    // A file that cannot be opened gives the defaults, as the reader does.
    std::ostringstream text;
    if (file) text << file.rdbuf();
    return read_text(text.str());
  });
}

PyObject* parse_description_wrap(PyObject*, PyObject* args) {
  PyObject* text = nullptr;
  if (!PyArg_ParseTuple(args, "O:parse_description", &text)) return nullptr;
  return PyVelmot::guarded_call([&] { return read_text(PyVelmot::text_up_to_nul(text)); });
}

PyMethodDef methods[] = {
    {"read_description", read_description_wrap, METH_VARARGS, "read_description(path) -> dict"},
    {"parse_description", parse_description_wrap, METH_VARARGS, "parse_description(text) -> dict"},
    {nullptr, nullptr, 0, nullptr},
};

PyModuleDef module_definition = {
    PyModuleDef_HEAD_INIT,
    "PyVelmot_description",
    "Reader of data set description files.",
    -1,
    methods,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
};

}  // namespace

PyMODINIT_FUNC PyInit_PyVelmot_description() { return PyModule_Create(&module_definition); }

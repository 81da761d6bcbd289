// Reading and writing CAD files for the surface kernel: STEP, IGES and BREP through
// OpenCASCADE's readers, in millimetres, with their console output silenced.
#include <BRepTools.hxx>
#include <BRep_Builder.hxx>
#include <IFSelect_ReturnStatus.hxx>
#include <IGESControl_Reader.hxx>
#include <IGESControl_Writer.hxx>
#include <Interface_Static.hxx>
#include <Message.hxx>
#include <Message_Messenger.hxx>
#include <STEPControl_Reader.hxx>
#include <STEPControl_Writer.hxx>
#include <Standard_Failure.hxx>
#include <TopoDS_Shape.hxx>

#include <algorithm>
#include <cctype>
#include <fstream>
#include <mutex>

#include "gfit/platform/surface.h"

namespace gfit::detail {
namespace {

// The readers' settings and the messenger are process-wide in OpenCASCADE: one file at a time.
std::mutex& io_mutex() {
  static std::mutex m;
  return m;
}

// Takes the printers off OpenCASCADE's default messenger for the life of the object.
class QuietMessenger {
 public:
  QuietMessenger() : saved_(Message::DefaultMessenger()->Printers()) {
    Message::DefaultMessenger()->ChangePrinters().Clear();
  }
  ~QuietMessenger() { Message::DefaultMessenger()->ChangePrinters() = saved_; }

 private:
  Message_SequenceOfPrinters saved_;
};

std::string extension(std::string const& path) {
  size_t dot = path.find_last_of('.');
  size_t slash = path.find_last_of("/\\");
  if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return "";
  std::string e = path.substr(dot + 1);
  std::transform(e.begin(), e.end(), e.begin(), [](unsigned char c) { return std::tolower(c); });
  return e;
}

// The file's single shape (a compound when the file holds several).
template <class Reader>
bool read_with(Reader& reader, std::string const& path, TopoDS_Shape& shape, std::string& error) {
  if (reader.ReadFile(path.c_str()) != IFSelect_RetDone) {
    error = "cannot parse " + path;
    return false;
  }
  if (reader.TransferRoots() == 0) {
    error = path + " holds no shape";
    return false;
  }
  shape = reader.OneShape();
  return true;
}

}  // namespace
}  // namespace gfit::detail

tskSurfPtr tskSurf::read(std::string const& path, std::string& error) {
  using namespace gfit::detail;
  if (!std::ifstream(path).good()) {
    error = "cannot read " + path;
    return nullptr;
  }
  std::string ext = extension(path);
  std::lock_guard<std::mutex> lock(io_mutex());
  QuietMessenger quiet;
  TopoDS_Shape shape;
  try {
    Interface_Static::SetCVal("xstep.cascade.unit", "MM");
    if (ext == "step" || ext == "stp") {
      STEPControl_Reader reader;
      if (!read_with(reader, path, shape, error)) return nullptr;
    } else if (ext == "iges" || ext == "igs") {
      IGESControl_Reader reader;
      if (!read_with(reader, path, shape, error)) return nullptr;
    } else if (ext == "brep" || ext == "brp") {
      BRep_Builder builder;
      if (!BRepTools::Read(shape, path.c_str(), builder) || shape.IsNull()) {
        error = "cannot parse " + path;
        return nullptr;
      }
    } else {
      error = path + ": unknown CAD format (expected .step, .stp, .iges, .igs, .brep or .brp)";
      return nullptr;
    }
  } catch (Standard_Failure const& e) {
    error = "cannot parse " + path + ": " + e.GetMessageString();
    return nullptr;
  }
  if (shape.IsNull()) {
    error = path + " holds no shape";
    return nullptr;
  }
  tskSurfPtr s = from_shape(shape);
  if (!s) error = "cannot build the faces of " + path;
  return s;
}

bool tskSurf::write(std::string const& path, std::string& error) const {
  using namespace gfit::detail;
  std::string ext = extension(path);
  std::lock_guard<std::mutex> lock(io_mutex());
  QuietMessenger quiet;
  try {
    if (ext == "step" || ext == "stp") {
      Interface_Static::SetCVal("write.step.unit", "MM");
      STEPControl_Writer writer;
      if (writer.Transfer(shape(), STEPControl_AsIs) != IFSelect_RetDone || writer.Write(path.c_str()) != IFSelect_RetDone) {
        error = "cannot write " + path;
        return false;
      }
      return true;
    }
    if (ext == "iges" || ext == "igs") {
      IGESControl_Writer writer("MM", 1);  // faces as B-rep entities
      if (!writer.AddShape(shape()) || (writer.ComputeModel(), !writer.Write(path.c_str()))) {
        error = "cannot write " + path;
        return false;
      }
      return true;
    }
    if (ext == "brep" || ext == "brp") {
      if (!BRepTools::Write(shape(), path.c_str())) {
        error = "cannot write " + path;
        return false;
      }
      return true;
    }
  } catch (Standard_Failure const& e) {
    error = "cannot write " + path + ": " + e.GetMessageString();
    return false;
  }
  error = path + ": can only write .step, .stp, .iges, .igs, .brep or .brp";
  return false;
}

// Reading and writing CAD files for the surface kernel: STEP, IGES and BREP through
// OpenCASCADE's readers, in millimetres, with their console output silenced.
//
// Files are untrusted input, and OpenCASCADE's readers and its transfer to shapes dereference
// what a malformed file leaves null or out of range. Reading therefore runs inside a fault
// guard (see surface.h for what it means to the host): a memory fault, bus error, arithmetic
// trap or illegal instruction on the reading thread becomes one of OpenCASCADE's failures,
// through its own mechanism (a Standard_ErrorHandler armed by OCC_CATCH_SIGNALS, reached by
// Standard_Failure::Jump), and the read ends with an error instead of the process.
#if !defined(_WIN32) && !defined(OCC_CONVERT_SIGNALS)
// OpenCASCADE is built with this on every system but Windows (its own build defines it there):
// it arms OCC_CATCH_SIGNALS, the jump target of a fault.
#define OCC_CONVERT_SIGNALS
#endif
#include <BRepTools.hxx>
#include <BRep_Builder.hxx>
#include <IFSelect_ReturnStatus.hxx>
#include <IGESControl_Reader.hxx>
#include <IGESControl_Writer.hxx>
#include <Interface_CheckIterator.hxx>
#include <Interface_Static.hxx>
#include <Message.hxx>
#include <Message_Messenger.hxx>
#include <STEPControl_Reader.hxx>
#include <STEPControl_Writer.hxx>
#include <Standard_ErrorHandler.hxx>
#include <Standard_Failure.hxx>
#include <Standard_NumericError.hxx>
#include <TopoDS_Shape.hxx>
#include <XSControl_WorkSession.hxx>

#include <algorithm>
#include <cctype>
#include <exception>
#include <fstream>
#include <mutex>
#include <optional>

#if defined(_WIN32)
#include <OSD.hxx>
#else
#include <OSD_SIGBUS.hxx>
#include <OSD_SIGILL.hxx>
#include <OSD_SIGSEGV.hxx>
#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <cfenv>
#endif

#include "gfit/cad/occt.h"

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

#if defined(_WIN32)

// On Windows OpenCASCADE translates structured exceptions of the calling thread into its
// failures (a per-thread translator, effective in code built with /EHa); nothing process-wide
// changes.
class FaultGuard {
 public:
  FaultGuard() { OSD::SetThreadLocalSignal(OSD_SignalMode_Set, Standard_False); }
  bool faulted() const { return false; }  // a translated fault reaches the caller as a failure
};

#else

// The signals a fault inside the reader raises on its own thread.
constexpr int fault_signals[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL};
constexpr int n_fault_signals = sizeof(fault_signals) / sizeof(fault_signals[0]);

// Written only while the reader mutex is held and no guard is installed; read by the handler.
struct sigaction host_actions[n_fault_signals];
std::atomic<bool> guarding{false};
pthread_t guarded_thread;
// Set by a fault during the read, even one that OpenCASCADE's own handlers then absorbed
// (its transfer skips an entity that faults): such a file is refused as a whole.
std::atomic<bool> fault_seen{false};
// The reading thread's stack for the handler, so that a stack overflow (deep recursion on a
// deeply nested file) can be handled too. Used by one read at a time.
alignas(16) char handler_stack[1 << 18];

void on_fault(int sig, siginfo_t* info, void* context) {
  int k = 0;
  while (k < n_fault_signals - 1 && fault_signals[k] != sig) ++k;
  if (guarding.load(std::memory_order_acquire) && pthread_equal(pthread_self(), guarded_thread)) {
    fault_seen.store(true);
    // As OpenCASCADE's own handler does: unblock the signal (the jump does not restore the
    // mask) and jump to the nearest OCC_CATCH_SIGNALS of this thread, which rethrows the
    // failure as a C++ exception.
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, sig);
    pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
    switch (sig) {
      case SIGSEGV: OSD_SIGSEGV::NewInstance("access violation in the CAD reader")->Jump(); break;
      case SIGBUS: OSD_SIGBUS::NewInstance("bus error in the CAD reader")->Jump(); break;
      case SIGILL: OSD_SIGILL::NewInstance("illegal instruction in the CAD reader")->Jump(); break;
      default: Standard_NumericError::NewInstance("arithmetic trap in the CAD reader")->Jump(); break;
    }
  }
  // Another thread of the host faulted while a file was being read: it gets exactly what the
  // host had installed.
  struct sigaction const& host = host_actions[k];
  if (host.sa_flags & SA_SIGINFO) {
    host.sa_sigaction(sig, info, context);
  } else if (host.sa_handler != SIG_DFL && host.sa_handler != SIG_IGN) {
    host.sa_handler(sig);
  } else {
    // Default action: put it back; a real fault recurs on return and ends the process as it
    // would have without us, a signal sent by kill() is delivered again.
    sigaction(sig, &host, nullptr);
    if (info == nullptr || info->si_code <= 0) raise(sig);
  }
}

// Installs the fault handler for the life of the object and puts back the host's handlers,
// its alternate signal stack and its floating-point environment afterwards.
class FaultGuard {
 public:
  FaultGuard() {
    fegetenv(&fp_);
    struct sigaction action {};
    action.sa_sigaction = on_fault;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK;
    sigemptyset(&action.sa_mask);
    for (int k = 0; k < n_fault_signals; ++k) sigaction(fault_signals[k], nullptr, &host_actions[k]);
    stack_t ours{};
    ours.ss_sp = handler_stack;
    ours.ss_size = sizeof handler_stack;
    own_stack_ = sigaltstack(nullptr, &saved_stack_) == 0 && (saved_stack_.ss_flags & SS_DISABLE) != 0 &&
                 sigaltstack(&ours, nullptr) == 0;
    guarded_thread = pthread_self();
    fault_seen.store(false);
    guarding.store(true, std::memory_order_release);
    for (int k = 0; k < n_fault_signals; ++k) sigaction(fault_signals[k], &action, nullptr);
  }
  ~FaultGuard() {
    for (int k = 0; k < n_fault_signals; ++k) sigaction(fault_signals[k], &host_actions[k], nullptr);
    guarding.store(false, std::memory_order_release);
    if (own_stack_) sigaltstack(&saved_stack_, nullptr);
    fesetenv(&fp_);
  }
  FaultGuard(FaultGuard const&) = delete;
  FaultGuard& operator=(FaultGuard const&) = delete;
  bool faulted() const { return fault_seen.load(); }

 private:
  std::fenv_t fp_;
  stack_t saved_stack_{};
  bool own_stack_ = false;
};

#endif

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
  // Entities that fail their own checks (a missing mandatory reference, an empty list where
  // items are required) are what the transfer dereferences blindly: refuse them here, before
  // anything can fault.
  if (!reader.WS()->ModelCheckList(Standard_True).IsEmpty(Standard_True)) {
    error = "cannot parse " + path + ": entities fail their checks";
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

namespace gfit::detail {
namespace {

// Runs `step` with the fault guard's jump target armed: a fault anywhere below lands here and
// is rethrown as a Standard_Failure. Frames below are abandoned by the jump, so the objects
// that own what a file makes (the reader and its model, the shape) must live in the caller.
// Whatever goes wrong ends as false and a message.
template <class Step>
bool guarded(std::string const& path, std::string& error, Step&& step) {
  try {
    OCC_CATCH_SIGNALS
    return step();
  } catch (Standard_Failure const& e) {
    error = "cannot parse " + path + ": " + e.GetMessageString();
  } catch (std::exception const& e) {
    error = "cannot parse " + path + ": " + e.what();
  } catch (...) {
    error = "cannot parse " + path;
  }
  return false;
}

// The file's shape and the surface over it.
tskSurfPtr read_file(std::string const& path, std::string const& ext, std::string& error) {
  std::optional<STEPControl_Reader> step;
  std::optional<IGESControl_Reader> iges;
  TopoDS_Shape shape;
  tskSurfPtr surface;
  Interface_Static::SetCVal("xstep.cascade.unit", "MM");
  if (ext == "step" || ext == "stp")
    step.emplace();
  else if (ext == "iges" || ext == "igs")
    iges.emplace();
  const bool read = guarded(path, error, [&] {
    if (step) return read_with(*step, path, shape, error);
    if (iges) return read_with(*iges, path, shape, error);
    BRep_Builder builder;
    if (BRepTools::Read(shape, path.c_str(), builder) && !shape.IsNull()) return true;
    error = "cannot parse " + path;
    return false;
  });
  if (!read) return nullptr;
  if (shape.IsNull()) {
    error = path + " holds no shape";
    return nullptr;
  }
  const bool built = guarded(path, error, [&] {
    surface = tskSurfFromShape(shape);
    return surface != nullptr;
  });
  if (!built) {
    if (error.empty()) error = "cannot build the faces of " + path;
    return nullptr;
  }
  return surface;
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
  if (ext != "step" && ext != "stp" && ext != "iges" && ext != "igs" && ext != "brep" && ext != "brp") {
    error = path + ": unknown CAD format (expected .step, .stp, .iges, .igs, .brep or .brp)";
    return nullptr;
  }
  std::lock_guard<std::mutex> lock(io_mutex());
  QuietMessenger quiet;
  FaultGuard guard;
  tskSurfPtr surface = read_file(path, ext, error);
  if (guard.faulted()) {
    error = "cannot parse " + path + ": the reader faulted on it";
    return nullptr;
  }
  return surface;
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
      if (writer.Transfer(tskSurfShape(*this), STEPControl_AsIs) != IFSelect_RetDone || writer.Write(path.c_str()) != IFSelect_RetDone) {
        error = "cannot write " + path;
        return false;
      }
      return true;
    }
    if (ext == "iges" || ext == "igs") {
      IGESControl_Writer writer("MM", 1);  // faces as B-rep entities
      if (!writer.AddShape(tskSurfShape(*this)) || (writer.ComputeModel(), !writer.Write(path.c_str()))) {
        error = "cannot write " + path;
        return false;
      }
      return true;
    }
    if (ext == "brep" || ext == "brp") {
      if (!BRepTools::Write(tskSurfShape(*this), path.c_str())) {
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

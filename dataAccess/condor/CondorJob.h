#ifndef DATAACCESS_CONDOR_CONDORJOB_H
#define DATAACCESS_CONDOR_CONDORJOB_H

#include <string>

// One batch job for the Condor workload manager: writes its submit file and
// submits it with condor_submit through the shell. Also the node type of a
// CondorDag.
//
// Thread safety: several threads may call the const methods of one job at
// once; a thread that calls a setter needs the job to itself.
class CondorJob {
 public:
  // `fileName` names the submit file; a relative name is completed against
  // the working directory the process had when the library was loaded, so a
  // later chdir of the host program does not move the job. The job's id is
  // the file's last component; output, error and log default to id + ".out",
  // ".err" and ".log", the initial directory to the submit file's folder.
  // A name that is empty or holds a NUL byte is a bug of the caller: an
  // ERROR line is logged and the process is aborted (in every build type).
  // A name whose last component is empty, "." or ".." ("dir/", "x/..") is
  // accepted here and fails at save with the "Can't open" line instead: a
  // server that takes job names from requests must not die for one.
  explicit CondorJob(const std::string& fileName);

  const std::string& getId() const { return id_; }
  const std::string& getFileName() const { return fileName_; }

  // The command that submits the file ("condor_submit"); the submit file's
  // name is appended after a blank, quoted for the shell when it holds
  // characters other than letters, digits and _ . / + - , : = @ %.
  void setSubmitCommand(const std::string& command) { submitCommand_ = command; }
  void setUniverse(const std::string& universe) { universe_ = universe; }
  void setExecutable(const std::string& executable) { executable_ = executable; }
  void setOutput(const std::string& output) { output_ = output; }
  void setError(const std::string& error) { error_ = error; }
  void setLog(const std::string& log) { log_ = log; }
  void setArguments(const std::string& arguments) { arguments_ = arguments; }
  void setShouldTransferFiles(const std::string& mode) { shouldTransferFiles_ = mode; }
  void setInitialDir(const std::string& dir) { initialDir_ = dir; }
  void setNotification(const std::string& mode) { notification_ = mode; }

  // Writes the ten-line submit file (an existing one is overwritten). 0 on
  // success; -1, with nothing written, when no executable is set, when a
  // value holds a line feed (it would add lines to the file) or when the file
  // cannot be created (its name names a folder, its folder is missing).
  // Written under a temporary name and renamed, never through a link. The
  // INFO line "Overwriting condor submit file" follows the write rather than
  // preceding it: the rename itself tells whether a file was replaced, which
  // spares a look-up per file.
  int save() const;
  // Saves the file first if no regular file stands at its name, then runs
  // the submit command.
  // Returns what system() returned (a wait status: WEXITSTATUS gives the
  // command's exit code), or -1 when there is no file to submit.
  int submit() const;

 private:
  friend class CondorDag;
  // The ERROR line save() would log, or empty when the job can be saved.
  std::string saveRefusal() const;
  // The submit file's text.
  std::string contents() const;
  int write() const;

  std::string id_;
  std::string fileName_;
  std::string submitCommand_;
  std::string universe_;
  std::string executable_;
  std::string output_;
  std::string error_;
  std::string log_;
  std::string arguments_;
  std::string shouldTransferFiles_;
  std::string initialDir_;
  std::string notification_;
};

// Orders jobs by id; jobs of equal id by submit-file name, so that two
// different jobs never count as one.
struct CondorJobComparator {
  bool operator()(const CondorJob& a, const CondorJob& b) const {
    const int byId = a.getId().compare(b.getId());
    return byId != 0 ? byId < 0 : a.getFileName() < b.getFileName();
  }
};

#endif

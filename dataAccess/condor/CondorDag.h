#ifndef DATAACCESS_CONDOR_CONDORDAG_H
#define DATAACCESS_CONDOR_CONDORDAG_H

#include <list>
#include <map>
#include <string>

#include <dataAccess/condor/CondorJob.h>

// A graph of Condor jobs with parent-child dependencies, written as a DAG
// file and submitted with condor_submit_dag, which runs each job once its
// parents have finished.
//
// Thread safety: several threads may call the const methods of one graph at
// once; a thread that calls addJob or a setter needs the graph to itself.
class CondorDag {
 public:
  // `fileName` names the DAG file, completed and checked as CondorJob's
  // submit-file name is (only an empty name or a NUL byte aborts the
  // process; a name of a folder fails at save).
  explicit CondorDag(const std::string& fileName);

  const std::string& getFileName() const { return fileName_; }
  // Stored for the caller; the submission does not read it (the DAG's own
  // files go next to the DAG file, the jobs run in their initial directories).
  void setInitialDir(const std::string& dir) { initialDir_ = dir; }
  const std::string& getInitialDir() const { return initialDir_; }
  // The command that submits the DAG ("condor_submit_dag"); the file name is
  // appended and quoted as for CondorJob::setSubmitCommand.
  void setSubmitCommand(const std::string& command) { submitCommand_ = command; }

  // Adds `job` with a copy of `parents`; a job already in the graph (same id
  // and submit file) keeps its place and gets the new parents instead. Only
  // jobs added here get a JOB line, so every parent must be added too.
  void addJob(const CondorJob& job, const std::list<CondorJob>& parents = std::list<CondorJob>());

  // Saves every job's submit file and writes the DAG file: a JOB line per job
  // in id order, then a PARENT ... CHILD line per job with parents. 0 on
  // success. -1, with nothing written, for an empty graph, a job that cannot
  // be saved (see CondorJob::save), a DAG file that cannot be created, and a
  // graph that condor_submit_dag would reject: a node name holding white
  // space or '+' or spelling PARENT or CHILD in any case, two jobs of one
  // name, a submit-file name holding white space, a parent that was not
  // added, a cycle. -1 also when a file cannot be written (job files written
  // by then stay).
  // A JOB line names the job's absolute submit-file name, except when the
  // DAG's folder holds white space, which condor_submit_dag cannot read in a
  // JOB line: the jobs in that folder are then named by their last component
  // (the job id), relative to the folder, and submit() runs from there.
  int save() const;
  // Saves the graph first if no regular file stands at the DAG file's name,
  // then runs the submit command (from the DAG's folder when that holds
  // white space, see save). Returns what system() returned, or -1 when there
  // is no file to submit.
  int submit() const;

 private:
  // The DAG's folder when its JOB lines name jobs relative to it, else empty.
  std::string submitDir() const;
  // The submit-file name of `job` on its JOB line.
  static const std::string& jobLineName(const CondorJob& job, const std::string& submitDir);
  // The ERROR line save() would log for the graph, or empty.
  std::string graphRefusal() const;

  std::map<CondorJob, std::list<CondorJob>, CondorJobComparator> dag_;
  std::string fileName_;
  std::string initialDir_;
  std::string submitCommand_;
};

#endif

#ifndef DATAACCESS_CONDITIONS_CONSTRAINTSET_H
#define DATAACCESS_CONDITIONS_CONSTRAINTSET_H

#include <string>
#include <vector>

// The observing conditions that an observation block asks for, as kept in the
// observation repository's constraint-set table. NULL columns read as 0, 0.0
// or an empty string.
// Thread safety: a plain value; distinct objects may be used on different threads at once.
struct ConstraintSet {
  typedef std::vector<ConstraintSet> Container;

  int csId_ = 0;
  int userId_ = 0;
  std::string itemName_;
  std::string itemDescription_;
  float seeing_ = 0.0f;
  std::string skyTransparency_;
  float airMass_ = 0.0f;
  float fli_ = 0.0f;  // fractional lunar illumination
  int moonDistance_ = 0;
  std::string localStorageId_;
  float strehlRatio_ = 0.0f;
  int baselineId_ = 0;
};

#endif

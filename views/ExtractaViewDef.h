#pragma once
// ExtractaViewDef: what one extracta view request holds: the view keyword, the
// fields to report in column order, and the record filters. All texts are
// narrow and written to the control file byte for byte.

#include <string>
#include <vector>

#include "core/AString.h"
#include "views/ViewTypes.h"

// While false (always, unless a caller changes it), views that carry net names
// leave out records without one. A process-wide switch only because the
// program's established interface has it.
extern bool keepUnnamedNets;

class ExtractaViewDef {
 public:
  // The definition of a view for a run: the view's defaults, the nets as
  // selecting (exclude false) or excluding (exclude true) conditions, then the
  // class exclusions of an unrestricted full-geometry view.
  ExtractaViewDef(ViewType type, const std::vector<AString>& nets, bool exclude);

  // Sets the keyword and appends the view's fields, conditions and
  // alternatives. Never clears a list. skipDefaultClasses leaves out the class
  // alternatives of conn.
  void InitDefaults(bool skipDefaultClasses);

  // Restricts the view to (or, with exclude, away from) the nets; only for
  // views that carry nets, and only for at most eleven nets.
  void AddNetFilters(const std::vector<AString>& nets, bool exclude);

  // Appends "CLASS = <name>" alternatives (unquoted).
  void AddClassAlternatives(const std::vector<AString>& classes);

  // The connectivity survey: NET_NAME of every record of the selected nets.
  static ExtractaViewDef MakeNetListDef(const std::vector<AString>& nets);

  // Connectivity of one net, restricted to the given classes.
  static ExtractaViewDef MakeNetClassDef(const AString& net, const std::vector<AString>& classes);

  ViewType viewType;
  std::string extractaView;
  std::vector<std::string> fields;
  std::vector<std::string> conditions;       // all must hold
  std::vector<std::string> netAlternatives;  // one must hold; replaces `alternatives`
  std::vector<std::string> alternatives;     // one must hold

 private:
  explicit ExtractaViewDef(ViewType type);  // empty lists
  void AddClassExclusions();
};

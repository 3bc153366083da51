#pragma once

#include <array>
#include <cstddef>
#include <set>
#include <string>
#include <vector>

#include "figures/Figures.h"

namespace Tool {

/// A figure of a name, as a column shows it.
struct Column {
  enum class Form { percent, count, duration };
  char const* title;
  char const* key;  ///< what `--sort` calls it
  char const* meaning;
  Form form;
  bool wideOnly;  ///< shown where the terminal has room
  double (*value)(NameFigures const& name, Figures const& of);
};

extern std::array<Column, 14> const tableColumns;
/// The index of the column of that key, or the number of columns.
std::size_t columnOf(std::string const& key);

/// How the names of a document are laid out.
struct TableOrder {
  std::size_t sort = 0;  ///< the column to sort by, or the number of columns: the name
  bool ascending = false;
  bool flat = false;             ///< no tree
  std::string filter;            ///< only names, or groups, that contain it, whatever their case
  std::set<std::string> folded;  ///< groups whose content is hidden
};

/// A row: a name, or a group with what is inside of it.
struct Row {
  NameFigures figures;
  std::string label;
  std::size_t depth = 0;
  std::string content;  ///< of a group: its name, by which its content is known; else empty
  bool folded = false;
  bool isRoot = false;  ///< no task stands for it
  bool longestQueued = false;
};

/// The names as a tree: each group is a row, below which stands what is inside, siblings sorted. A
/// root, which no task stands for, has the sums of its tasks. Groups that contain each other, and
/// those deeper than 32, stand at the top: every name of the figures is in the table once.
std::vector<Row> makeTable(Figures const& figures, TableOrder const& order);

}  // namespace Tool

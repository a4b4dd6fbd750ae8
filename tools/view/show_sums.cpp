// SPDX-License-Identifier: Apache-2.0
// Tables and trees of sums.
#include <algorithm>
#include <array>
#include <cmath>
#include <optional>
#include <ostream>
#include <utility>

#include "tools/base/format.h"
#include "tools/view/show_views.h"

namespace memleak {
namespace {

constexpr std::size_t kBytesColumns = 10;
constexpr std::size_t kShareColumns = 7;
constexpr std::size_t kBlocksColumns = 11;
constexpr std::size_t kAgeColumns = 8;
// Branches below a hundredth are drawn with --top 0 only.
constexpr std::uint64_t kSmallestShare = 100;
constexpr std::size_t kIndentStep = 2;
constexpr std::size_t kDeepestIndent = 30;

// The columns of a bar, without the blank before it.
constexpr std::size_t kBarColumns = 6;

void PrintRow(const Section& section, const Row& row, RowKind kind, std::ostream& out) {
  const Paint paint(section.options.color);
  const std::string share = Right(Percent(row.self.bytes, section.whole), kShareColumns + 1);
  const std::string bar = ShareBar(row.self.bytes, section.whole, section.options);
  std::string total = Right(FormatBytes(row.inclusive.bytes), kBytesColumns + 1) +
                      Right(FormatCount(row.inclusive.blocks), kBlocksColumns + 1);
  if (section.options.selection.sort == SortKey::kAge) {
    total += Right(row.oldest ? FormatAge(*row.oldest) : "", kAgeColumns + 1);
  }
  const std::string& name = kind == RowKind::kLibrary && row.name.empty() ? "(nameless)" : row.name;
  const std::size_t figures = kBytesColumns + share.size() + Columns(bar) + total.size() + 2;
  const std::size_t room = OutputColumns() - std::min(OutputColumns() - 10, figures);
  out << paint.Strong(Right(FormatBytes(row.self.bytes), kBytesColumns)) << share << paint.Bar(bar)
      << total << "  " << paint.Name(FitWidth(name, room)) << "\n";
}

/// A tree line to be printed.
struct PendingLine {
  std::uint32_t node = 0;
  std::size_t indent = 0;
  std::size_t more = 0;  // if not 0, the line sums up this many branches
  Sums left_out = {};
  std::optional<std::int64_t> oldest = {};  // of `left_out`
};

/// The column for the sort key in a tree.
struct OrderColumn {
  std::size_t width = 0;  // with the blank before it
  const char* title = "";
};
// By SortKey. Bytes have a column already.
constexpr std::array<OrderColumn, 4> kOrderColumns = {{{},
                                                       {kBlocksColumns + 1, "blocks"},
                                                       {kBytesColumns + 1, "a block"},
                                                       {kAgeColumns + 1, "oldest"}}};

std::string OrderText(SortKey sort, const Sums& sums, std::optional<std::int64_t> oldest) {
  if (sort == SortKey::kTotal) return "";
  if (sort == SortKey::kCount) return FormatCount(sums.blocks);
  if (sort == SortKey::kSize) return FormatBytes(MeanSize(sums));
  return oldest ? FormatAge(*oldest) : "";
}

class TreePrinter {
 public:
  TreePrinter(const Section& section, std::vector<TreeNode> tree, std::ostream& out)
      : section_(section),
        tree_(std::move(tree)),
        out_(out),
        paint_(section.options.color),
        sort_(section.options.selection.sort),
        order_(kOrderColumns.at(static_cast<std::size_t>(sort_))) {}

  Sums Print() {
    Push(0, 0);
    while (!pending_.empty()) {
      const PendingLine line = pending_.back();
      pending_.pop_back();
      if (line.more != 0) {
        PrintMore(line);
      } else {
        PrintNode(line);
        Push(line.node, line.indent);
      }
    }
    return left_out_;
  }

 private:
  // Pushes the children of a node, the largest last.
  void Push(std::uint32_t parent, std::size_t indent) {
    std::vector<std::uint32_t>& children = tree_[parent].children;
    const auto is_large = [&](std::uint32_t child) { return IsLarge(child); };
    const std::size_t top = section_.options.top == 0 ? children.size() : section_.options.top;
    auto shown = static_cast<std::size_t>(std::ranges::count_if(children, is_large));
    if (shown + 1 == children.size() && shown < top) {
      // A line for one more branch takes as much space as the branch.
      ++shown;
    } else {
      // In other orders than by bytes, small branches may come before large ones.
      std::stable_partition(children.begin(), children.end(), is_large);
    }
    shown = std::min(shown, top);
    // A single child is not indented.
    const bool forks = shown != children.size() || shown > 1;
    if (parent == 0) many_roots_ = forks;
    // With several roots, their children are indented.
    const bool fork = forks || tree_[parent].self.groups != 0 || (many_roots_ && indent == 0);
    const std::size_t inner =
        parent == 0 ? 0 : std::min(kDeepestIndent, indent + (fork ? kIndentStep : 0));
    PendingLine rest{.node = parent, .indent = inner, .more = children.size() - shown};
    for (std::size_t i = shown; i < children.size(); ++i) {
      const TreeNode& node = tree_[children[i]];
      rest.left_out.Add(node.sums);
      if (node.oldest) rest.oldest = std::max(rest.oldest.value_or(*node.oldest), *node.oldest);
    }
    left_out_.Add(rest.left_out);
    if (rest.more != 0) pending_.push_back(rest);
    for (std::size_t i = shown; i-- > 0;) {
      pending_.push_back({.node = children[i], .indent = inner});
    }
  }

  // By blocks with --sort count, else by bytes.
  bool IsLarge(std::uint32_t node) const {
    const Sums& sums = tree_[node].sums;
    const Sums& all = tree_[0].sums;
    if (section_.options.top == 0) return true;
    return sort_ == SortKey::kCount ? sums.blocks >= all.blocks / kSmallestShare
                                    : sums.bytes >= all.bytes / kSmallestShare;
  }

  void PrintFigures(const Sums& sums, std::optional<std::int64_t> oldest, std::size_t indent) {
    out_ << paint_.Strong(Right(FormatBytes(sums.bytes), kBytesColumns))
         << Right(Percent(sums.bytes, section_.whole), kShareColumns + 1)
         << Right(OrderText(sort_, sums, oldest), order_.width) << "  " << std::string(indent, ' ');
  }

  std::size_t Room(std::size_t indent) const {
    return OutputColumns() - kBytesColumns - kShareColumns - 3 - order_.width - indent;
  }

  void PrintNode(const PendingLine& line) {
    const TreeNode& node = tree_[line.node];
    PrintFigures(node.sums, node.oldest, line.indent);
    const std::string name = node.frame == kNoFrame
                                 ? "(no stack)"
                                 : FrameName(section_.profile, section_.profile.frames[node.frame]);
    out_ << paint_.Name(FitWidth(name, Room(line.indent))) << "\n";
  }

  void PrintMore(const PendingLine& line) {
    PrintFigures(line.left_out, line.oldest, line.indent);
    out_ << paint_.Faint("(" + FormatCount(line.more) + " more)") << "\n";
  }

  const Section& section_;
  std::vector<TreeNode> tree_;
  std::ostream& out_;
  Paint paint_;
  SortKey sort_;
  OrderColumn order_;
  std::vector<PendingLine> pending_;
  Sums left_out_;
  bool many_roots_ = false;
};

}  // namespace

std::string ShareBar(std::uint64_t part, std::uint64_t whole, const ViewOptions& options) {
  if (options.bars == Bars::kNone) return "";
  constexpr std::array kEighths = {"", "▏", "▎", "▍", "▌", "▋", "▊", "▉"};
  const double share = whole == 0 ? 0 : static_cast<double>(part) / static_cast<double>(whole);
  const auto steps = static_cast<std::size_t>(std::lround(std::min(share, 1.0) * kBarColumns * 8));
  const bool blocks = options.bars == Bars::kBlocks;
  std::string bar = " ";
  for (std::size_t i = 0; i < steps / 8; ++i) bar += blocks ? "█" : "#";
  if (blocks) bar += kEighths.at(steps % 8);
  return bar + std::string(kBarColumns + 1 - Columns(bar), ' ');
}

Sums PrintRows(const Section& section, RowKind kind, std::ostream& out) {
  const std::vector<Row> rows =
      AddUp(section.profile, section.selected, kind, section.options.selection.sort);
  if (rows.empty()) return section.selected.sums;
  const bool ages = section.options.selection.sort == SortKey::kAge;
  out << "\n"
      << Right("self", kBytesColumns) << Right("share", kShareColumns + 1)
      << std::string(Columns(ShareBar(0, 1, section.options)), ' ')
      << Right("total", kBytesColumns + 1) << Right("blocks", kBlocksColumns + 1)
      << (ages ? Right("oldest", kAgeColumns + 1) : "")
      << (kind == RowKind::kLibrary ? "  library" : "  function") << "\n";
  Sums below = section.selected.sums;
  std::size_t shown = 0;
  for (const Row& row : rows) {
    if (section.options.top != 0 && shown == section.options.top) break;
    ++shown;
    PrintRow(section, row, kind, out);
    below.Subtract(row.self);
  }
  if (shown < rows.size()) {
    out << Right("", kBytesColumns) << "  and " << FormatCount(rows.size() - shown) << " more\n";
  }
  return below;
}

Sums PrintTree(const Section& section, TreeEnd end, std::ostream& out) {
  if (section.selected.groups.empty()) return {};
  const SortKey sort = section.options.selection.sort;
  const OrderColumn& order = kOrderColumns.at(static_cast<std::size_t>(sort));
  out << "\n"
      << Right("bytes", kBytesColumns) << Right("share", kShareColumns + 1)
      << Right(order.title, order.width)
      << (end == TreeEnd::kOutermost ? "  from the outermost call inwards\n"
                                     : "  from the allocating call outwards\n");
  return TreePrinter(section, BuildTree(section.profile, section.selected, end, sort), out).Print();
}

}  // namespace memleak

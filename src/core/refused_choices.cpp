// Jumps over refused choices, with path compression.
//
// Refused positions form runs, and each position of a run points to one farther on. A look-up that follows the pointers
// makes all of them point to the end, as in a union-find, so a run that grows round after round is still passed in
// nearly constant time.
#include "core/refused_choices.h"

namespace onnxgraft::core {

RefusedChoices::Prefix RefusedChoices::after(Prefix prefix, NodeIndex node) const {
  if (prefix == unknown) return unknown;
  const auto found = prefixes_.find(key(prefix, node));
  return found == prefixes_.end() ? unknown : found->second;
}

RefusedChoices::Prefix RefusedChoices::add_after(Prefix prefix, NodeIndex node) {
  const auto [found, is_new] = prefixes_.try_emplace(key(prefix, node), static_cast<Prefix>(runs_.size()));
  if (is_new) runs_.emplace_back();
  return found->second;
}

void RefusedChoices::refuse(Prefix prefix, std::size_t list, std::size_t position) {
  Run& run = runs_[prefix];
  if (run.next.empty()) run.list = list;
  // From another list the note would be about another candidate. Without it the choice is only visited again.
  if (run.list != list) return;
  if (run.next.size() <= position) run.next.resize(position + 1, 0);
  run.next[position] = static_cast<std::uint32_t>(position + 1);
}

std::size_t RefusedChoices::skip(Prefix prefix, std::size_t list, std::size_t position) {
  if (prefix == unknown || runs_[prefix].list != list) return position;
  std::vector<std::uint32_t>& next = runs_[prefix].next;
  const auto is_refused = [&](std::size_t at) { return at < next.size() && next[at] != 0; };
  std::size_t end = position;
  while (is_refused(end)) end = next[end];
  // From now on every position passed leads to the end of the run.
  while (position < end) {
    const std::size_t passed = position;
    position = next[passed];
    next[passed] = static_cast<std::uint32_t>(end);
  }
  return end;
}

}  // namespace onnxgraft::core

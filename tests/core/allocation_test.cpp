// Out of memory: every allocation of the core fails once. The error must come out unchanged, the objects that the core
// was given must serve a second run, and half-made objects must be released (the sanitizers of `make sanitize` check
// that).
#include <gtest/gtest.h>

#include <cstdlib>
#include <new>

#include "core/nearest_miss.h"
#include "core/node_order.h"
#include "core/splice_plan.h"
#include "graph_text.h"

namespace {

// 0: no failure. n: the n-th allocation from here fails. Per thread, so that the test runner's own threads are safe.
thread_local std::size_t allocations_left = 0;

void* allocate(std::size_t size) {
  if (allocations_left == 1) {
    allocations_left = 0;
    throw std::bad_alloc();
  }
  if (allocations_left != 0) --allocations_left;
  void* memory = std::malloc(size == 0 ? 1 : size);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

}  // namespace

void* operator new(std::size_t size) { return allocate(size); }
void* operator new[](std::size_t size) { return allocate(size); }
// The standard library's sort allocates through this one. Without it, a sanitizer build would mix two allocators.
void* operator new(std::size_t size, const std::nothrow_t& /*unused*/) noexcept {
  try {
    return allocate(size);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete[](void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t /*size*/) noexcept { std::free(memory); }
void operator delete[](void* memory, std::size_t /*size*/) noexcept { std::free(memory); }

namespace onnxgraft::core {
namespace {

/// Runs `act` once for each allocation that it makes, with that one failing, and returns how many runs raised the
/// error. Not all do: the standard library's stable sort works without the memory, and then `act` must still be right.
template <class Act>
std::size_t fail_everywhere(Act act) {
  std::size_t errors = 0;
  for (std::size_t fail_at = 1;; ++fail_at) {
    allocations_left = fail_at;
    try {
      act();
    } catch (const std::bad_alloc&) {
      ++errors;
    }
    if (allocations_left != 0) {
      allocations_left = 0;
      return errors;
    }
  }
}

struct Pair {
  const char* graph;
  const char* pattern;
  const char* replacement;
};

const Pair pairs[] = {
    {"init w; Conv x,w -> y; Relu y -> z; Conv z,w -> u; If u -> v reads z; output v", "Conv:0,1i->4",
     "Quant:0->100 #0:100,101i->103 Dequant:103,104i->4"},
    {"LeakyRelu x -> a; LeakyRelu b -> c; Concat a,c -> d; Quant d -> e",
     "LeakyRelu:1->2 LeakyRelu:3->4 Concat:2,4->5 "
     "Quant:5->99",
     "#0 #1 #3:2->100 #3:4->101 #2:100,101->99"},
    {"init w; Quant x -> q; Conv q,w -> c; Quant x -> r; Neg r -> n", "Quant:0->1 Conv:1,2i->4 Quant:0->5",
     "#2 #1:5,2i->4"},
    {"A x -> a; B a -> b; G b -> g; Relu y -> z; Conv z,w -> c", "A:0->1 G:2->3 Relu:4->5", "#0:0,3->1 #1 #2"},
    {"Relu x -> y; Neg y -> z; Abs y -> a", "Relu:0->1 Neg:1->2", "Clip:0->2"},
};

TEST(Allocation, FailsOnceEverywhere) {
  for (const Pair& pair : pairs) {
    const Texts pattern = words(pair.pattern);
    const Texts replacement = words(pair.replacement);
    EXPECT_GT(fail_everywhere([&] { compile_rule(pattern, replacement); }), 10U) << pair.pattern;

    const Rule rule = compile_rule(pattern, replacement);
    const GraphTable given = make_graph(pair.graph);
    const std::vector<Assignment> expected = assignments(search(given, rule));
    std::size_t failures = fail_everywhere([&] { EXPECT_EQ(assignments(search(given, rule)), expected); });
    failures += fail_everywhere([&] {
      const auto miss = find_nearest_miss(given, rule);
      EXPECT_EQ(miss.has_value(), expected.empty());
      EXPECT_TRUE(!miss || !describe(given, rule, *miss).empty());
    });
    EXPECT_GT(failures, 20U) << pair.pattern;

    failures = fail_everywhere([&] {
      // Not made from text: streams swallow the error.
      GraphTable table = graph_of(rule);
      OccurrenceList found = search(table, rule);
      const std::vector<NodeIndex> before = all_nodes(table);
      const SplicePlan plan(table, rule, found);
      const auto after = plan.arrange(before, std::vector<bool>(found.size(), true));
      EXPECT_EQ(plan.arrange(before, std::vector<bool>(found.size(), false)), before);
      EXPECT_EQ(put_in_order(table, before, after), after);
    });
    EXPECT_GT(failures, 30U) << pair.pattern;
  }
}

}  // namespace
}  // namespace onnxgraft::core

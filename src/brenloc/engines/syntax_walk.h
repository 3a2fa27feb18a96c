// A depth-first walk over the nodes of a syntax tree that a tree cursor shows (named and anonymous, in the
// same order), each with its field in its parent. Where the parser's runtime is built into the program it
// reads the tree's own layout, cheaper per node than a cursor (which works out its place again at each step);
// otherwise it walks a cursor.
#pragma once

#include <tree_sitter/api.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct {
  void (*enter)(void* context, TSNode node, TSFieldId field);  // before the node's children
  void (*leave)(void* context);                                // after them
  void* context;
  bool named_leaves_only;  // not the anonymous leaves (punctuation, keywords)
} BrenlocTreeVisitor;

// Visits `root` and everything below it.
void brenloc_walk_tree(TSNode root, const BrenlocTreeVisitor* visitor);

#ifdef __cplusplus
}
#endif

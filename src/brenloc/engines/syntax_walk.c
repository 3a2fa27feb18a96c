#include "brenloc/engines/syntax_walk.h"

#include <stdlib.h>

#ifdef BRENLOC_TREE_LAYOUT

#include "language.h"
#include "length.h"
#include "subtree.h"
#include "tree.h"

// A node whose children are being walked: visible, or hidden (a rule the grammar does not show, whose
// children stand for it in its visible parent).
typedef struct {
  const Subtree* children;
  uint32_t count, next, structural;  // `structural`: the index among the children that are not extras
  Length position;                   // of the next child's text, past its padding
  const TSSymbol* aliases;
  const TSFieldMapEntry *fields, *fields_end;
  TSFieldId field;  // a hidden node's own field: its children without a field of their own have it
  bool visible;
} Frame;

typedef struct {
  Frame* frames;
  uint32_t size, capacity;
} Stack;

static void push(Stack* stack, const TSLanguage* language, const Subtree* subtree, Length position,
                 TSFieldId field, bool visible) {
  if (stack->size == stack->capacity) {
    stack->capacity = stack->capacity ? 2 * stack->capacity : 64;
    Frame* grown = realloc(stack->frames, stack->capacity * sizeof(Frame));
    if (!grown) abort();
    stack->frames = grown;
  }
  Frame* f = &stack->frames[stack->size++];
  f->children = ts_subtree_children(*subtree);
  f->count = ts_subtree_child_count(*subtree);
  f->next = 0;
  f->structural = 0;
  f->position = position;
  f->aliases = ts_language_alias_sequence(language, subtree->ptr->production_id);
  ts_language_field_map(language, subtree->ptr->production_id, &f->fields, &f->fields_end);
  f->field = field;
  f->visible = visible;
}

void brenloc_walk_tree(TSNode root, const BrenlocTreeVisitor* visitor) {
  const TSTree* tree = root.tree;
  const Subtree* top = (const Subtree*)root.id;
  visitor->enter(visitor->context, root, 0);
  if (ts_subtree_child_count(*top) == 0) {
    visitor->leave(visitor->context);
    return;
  }
  Stack stack = {NULL, 0, 0};
  const Length start = {root.context[0], {root.context[1], root.context[2]}};
  push(&stack, tree->language, top, start, 0, true);
  while (stack.size > 0) {
    Frame* f = &stack.frames[stack.size - 1];
    if (f->next == f->count) {
      const bool visible = f->visible;
      --stack.size;
      if (visible) visitor->leave(visitor->context);
      continue;
    }
    const Subtree* child = &f->children[f->next];
    const Length position = f->position;
    const bool extra = ts_subtree_extra(*child);
    TSSymbol alias = 0;
    TSFieldId field = 0;
    if (!extra) {
      const uint32_t k = f->structural++;
      if (f->aliases) alias = f->aliases[k];
      for (const TSFieldMapEntry* m = f->fields; m < f->fields_end; ++m) {
        if (!m->inherited && m->child_index == k) {
          field = m->field_id;
          break;
        }
      }
      if (field == 0 && !f->visible) field = f->field;
    }
    ++f->next;
    f->position = length_add(position, ts_subtree_size(*child));
    if (f->next < f->count) f->position = length_add(f->position, ts_subtree_padding(f->children[f->next]));

    const bool visible = ts_subtree_visible(*child) || alias != 0;
    const uint32_t count = ts_subtree_child_count(*child);
    if (visible) {
      if (visitor->named_leaves_only && ts_subtree_visible_child_count(*child) == 0 &&
          !(alias ? ts_language_symbol_metadata(tree->language, alias).named : ts_subtree_named(*child))) {
        continue;
      }
      visitor->enter(visitor->context, ts_node_new(tree, child, position, alias), field);
      if (count == 0) {
        visitor->leave(visitor->context);
        continue;
      }
    } else if (count == 0 || ts_subtree_visible_child_count(*child) == 0) {
      continue;
    }
    push(&stack, tree->language, child, position, field, visible);
  }
  free(stack.frames);
}

#else  // a runtime of the system: only its public interface

// Whether the visitor is shown the cursor's node, `depth` below the root (which always is).
static bool shown(const BrenlocTreeVisitor* visitor, TSTreeCursor* cursor, unsigned depth) {
  const TSNode node = ts_tree_cursor_current_node(cursor);
  return !visitor->named_leaves_only || depth == 0 || ts_node_is_named(node) || ts_node_child_count(node) > 0;
}

static void enter(const BrenlocTreeVisitor* visitor, TSTreeCursor* cursor, unsigned depth) {
  if (shown(visitor, cursor, depth)) {
    visitor->enter(visitor->context, ts_tree_cursor_current_node(cursor), ts_tree_cursor_current_field_id(cursor));
  }
}

void brenloc_walk_tree(TSNode root, const BrenlocTreeVisitor* visitor) {
  TSTreeCursor cursor = ts_tree_cursor_new(root);
  unsigned depth = 0;
  enter(visitor, &cursor, depth);
  for (;;) {
    if (ts_tree_cursor_goto_first_child(&cursor)) {
      enter(visitor, &cursor, ++depth);
      continue;
    }
    for (;;) {
      if (shown(visitor, &cursor, depth)) visitor->leave(visitor->context);
      if (ts_tree_cursor_goto_next_sibling(&cursor)) {
        enter(visitor, &cursor, depth);
        break;
      }
      if (!ts_tree_cursor_goto_parent(&cursor)) {
        ts_tree_cursor_delete(&cursor);
        return;
      }
      --depth;
    }
  }
}

#endif

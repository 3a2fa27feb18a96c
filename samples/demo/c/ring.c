#include "ring.h"

static int next_index(int i) { return (i + 1) % RING_CAPACITY; }

enum ring_status ring_push(struct ring *r, int value) {
    if (next_index(r->tail) == r->head) return RING_FULL;
    r->data[r->tail] = value;
    r->tail = next_index(r->tail);
    return RING_OK;
}

enum ring_status ring_pop(struct ring *r, int *out) {
    if (r->head == r->tail) return RING_EMPTY;
    *out = r->data[r->head];
    r->head = next_index(r->head);
    return RING_OK;
}

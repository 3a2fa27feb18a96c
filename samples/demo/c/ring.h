#ifndef RING_H
#define RING_H

#define RING_CAPACITY 64

struct ring {
    int head;
    int tail;
    int data[RING_CAPACITY];
};

enum ring_status { RING_OK, RING_FULL, RING_EMPTY };

enum ring_status ring_push(struct ring *r, int value);
enum ring_status ring_pop(struct ring *r, int *out);

#endif

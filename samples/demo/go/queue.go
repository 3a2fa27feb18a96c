package queue

const DefaultSize = 16

type Queue struct {
	items []int
}

func New() *Queue { return &Queue{items: make([]int, 0, DefaultSize)} }

func (q *Queue) Push(v int) { q.items = append(q.items, v) }

func (q *Queue) Pop() (int, bool) {
	if len(q.items) == 0 {
		return 0, false
	}
	v := q.items[0]
	q.items = q.items[1:]
	return v, true
}

pub const MAX_DEPTH: usize = 32;

pub struct Stack<T> {
    items: Vec<T>,
}

pub trait Container {
    fn size(&self) -> usize;
}

impl<T> Stack<T> {
    pub fn new() -> Self {
        Stack { items: Vec::new() }
    }

    pub fn push(&mut self, item: T) {
        self.items.push(item);
    }
}

impl<T> Container for Stack<T> {
    fn size(&self) -> usize {
        self.items.len()
    }
}

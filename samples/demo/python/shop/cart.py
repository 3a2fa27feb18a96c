"""A tiny shopping cart."""

TAX_RATE = 0.2


class Item:
    def __init__(self, name, price):
        self.name = name
        self.price = price


class Cart:
    def __init__(self):
        self.items = []

    def add(self, item):
        self.items.append(item)

    def total(self):
        return sum(i.price for i in self.items) * (1 + TAX_RATE)


def checkout(cart):
    return round(cart.total(), 2)

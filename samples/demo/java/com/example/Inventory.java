package com.example;

import java.util.HashMap;
import java.util.Map;

public class Inventory {
    public static final int LOW_STOCK = 5;

    private final Map<String, Integer> counts = new HashMap<>();

    public Inventory() {}

    public void restock(String sku, int amount) {
        counts.merge(sku, amount, Integer::sum);
    }

    public boolean isLow(String sku) {
        return counts.getOrDefault(sku, 0) < LOW_STOCK;
    }

    enum Level { LOW, OK }
}

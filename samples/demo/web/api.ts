export interface Order {
  id: string;
  total: number;
}

export type OrderId = string;

export enum OrderState {
  Open,
  Paid,
  Shipped,
}

export async function fetchOrder(id: OrderId): Promise<Order> {
  const response = await fetch(`/orders/${id}`);
  return response.json();
}

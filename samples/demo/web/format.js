export const DEFAULT_LOCALE = "en-GB";

export function formatPrice(amount, currency = "EUR") {
  return new Intl.NumberFormat(DEFAULT_LOCALE, { style: "currency", currency }).format(amount);
}

export class PriceTag {
  constructor(amount) {
    this.amount = amount;
  }
  render() {
    return formatPrice(this.amount);
  }
}

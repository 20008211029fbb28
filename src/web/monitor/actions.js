export function rowActions() { return null; }

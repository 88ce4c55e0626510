// Keeps the support library non-empty before any support code exists.

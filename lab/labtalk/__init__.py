"""How the parts of the lab talk: with lumd, with each other, and with whoever watches."""

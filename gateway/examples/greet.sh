#!/bin/sh
# Greets the user of a call. A program that ends behind its answer is started again for the next.
read -r call
user=$(printf '%s\n' "$call" | sed 's/.*"user":"\([^"]*\)".*/\1/')
printf '{"commarea": "Hello, %s!"}\n' "$user"

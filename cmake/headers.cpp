// Nothing but a reason to compile the headers that this target brings.

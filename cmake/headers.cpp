// Empty: this target only needs a source file so that its headers are compiled.

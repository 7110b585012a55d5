// Empty: this library only precompiles the headers that the tests share.

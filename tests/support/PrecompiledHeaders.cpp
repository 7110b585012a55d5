// Nothing: this library is there for the headers that the tests share in compiled form.

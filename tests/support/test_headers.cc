// Has the headers that the tests share compiled.

// The headers that tests share are compiled with this file; as a program it holds no test.

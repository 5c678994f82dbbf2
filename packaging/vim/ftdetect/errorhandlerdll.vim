" A log of libErrorHandlerDll.so is known by its first line, whatever its name.
autocmd BufNewFile,BufRead *.log*
    \ if getline(1) =~# '^\d\d/\d\d/\d\d \d\d:\d\d:\d\d\.\d\{3} - .\{10,} - \[ThreadID: -\?\d\+\] -'
    \ |   setlocal filetype=errorhandlerdll
    \ | endif

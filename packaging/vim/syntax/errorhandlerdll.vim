" Log files of libErrorHandlerDll.so: time, level, thread and source of each entry, error blocks, crash dumps, hex dumps.
if exists('b:current_syntax')
  finish
endif

syntax match ehdTime /^\d\d\/\d\d\/\d\d \d\d:\d\d:\d\d\.\d\{3}/ nextgroup=ehdError,ehdWarning,ehdDebug
syntax match ehdError / - \(ERROR\|Level -\d\+\) *\ze - / contained nextgroup=ehdThread
syntax match ehdWarning / - WARNING *\ze - / contained nextgroup=ehdThread
syntax match ehdDebug / - \(DEBUG_LOW\|DEBUG_HIGH\|Level \d\+\) *\ze - / contained nextgroup=ehdThread
syntax match ehdThread / - \[ThreadID: -\?\d\+\] -\( \|$\)/ contained nextgroup=ehdBlock,ehdSource
syntax match ehdSource /\S.\{-}() - / contained nextgroup=ehdBlock
syntax match ehdBlock /-\{22}$/ contained
syntax match ehdBlock /\[\(caught\|propagating\)\]: /
syntax match ehdDump /Structured exception .\+ (code \x\{8}) occurred at .*$/
syntax match ehdDump /  \(Fault address:  \|Call stack:$\|Registers:$\|Modules list:$\|Raw stack dump:$\)/
syntax match ehdHex /^\(\x\x \)\{16}: .*$/
syntax match ehdHex /^\(\x\x \)\{1,15} *: .*$/

highlight default link ehdTime Comment
highlight default link ehdError Error
highlight default link ehdWarning WarningMsg
highlight default link ehdDebug Type
highlight default link ehdThread Identifier
highlight default link ehdSource Function
highlight default link ehdBlock Special
highlight default link ehdDump Special
highlight default link ehdHex Constant

let b:current_syntax = 'errorhandlerdll'

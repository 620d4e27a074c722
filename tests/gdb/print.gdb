# What is printed of a running program and of its core file.
set width 0
set height 0
p port
p shared
p nullRow
p everyType
p odd
p noted
p host
p *anyRow
p *anyHost
p *anySubRow
p nestedRow
p subRow
p noSubRow
p *buffer
p noBuffer
p tagsSlot
p text
p oddText
p noText
p addressReference
p noAddressReference
p prefixReference
p noPrefixReference
p tags
p lanes
p nets
p noArray
p v4
p v6
p address
p noAddress
p net
p noNet
p idle
p first
p second
p withdrawn
p *anyUnit
p *queue
p *queuePlace
p beyond
p tooShort
p lost
p wrongText
p wrongArray
set print elements 3
p port
p oddText
p *queue
set print elements 1
p *queue
set print elements 200

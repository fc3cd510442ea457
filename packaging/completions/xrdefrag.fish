# fish completion for xrdefrag(8)

complete -c xrdefrag -s h -l help -d 'End at once'
complete -c xrdefrag -s i -l interval -x -d 'Least time between two progress lines, in seconds'
complete -c xrdefrag -s q -l quit -d 'Open and check the volume, then end'
complete -c xrdefrag -s s -l strings -r -F -d 'Property list that translates messages'
complete -c xrdefrag -s L -l lowpri -d 'Leave the disk to everybody else'
complete -c xrdefrag -s x -l hfsx -d 'Accept HFSX volumes'

1-1 4 16.000 cheese milk 
2-1 4 16.000 coffee milk sugar 
3-0 2 8.000 bread butter jam milk 
3-1 2 8.000 bread butter eggs milk 

0-0 5 20.000 cheese 
0-1 6 24.000 coffee 
0-2 7 28.000 sugar 
0-3 7 28.000 eggs 
0-4 8 32.000 butter 
0-5 14 56.000 bread 
0-6 17 68.000 milk 
1-0 4 16.000 bread jam 
1-1 4 16.000 cheese milk 
1-2 6 24.000 coffee sugar 
1-3 4 16.000 coffee milk 
1-4 4 16.000 milk sugar 
1-5 4 16.000 bread eggs 
1-6 5 20.000 eggs milk 
1-7 8 32.000 bread butter 
1-8 6 24.000 butter milk 
1-9 10 40.000 bread milk 
2-0 3 12.000 bread butter jam 
2-1 4 16.000 coffee milk sugar 
2-2 3 12.000 bread eggs milk 
2-3 6 24.000 bread butter milk 
3-0 2 8.000 bread butter jam milk 
3-1 2 8.000 bread butter eggs milk 

// Waits for a camera and copies the first MiB of its memory into a file: Photo FILE. When the camera or the
// service goes away, it begins again with the next camera. Ctrl-C ends it.
using System;
using System.Collections.Concurrent;
using System.Collections.Generic;
using System.IO;
using System.Threading;
using System.Threading.Tasks;
using Orvik;

static class Photo
{
    const int Length = 1 << 20;
    const int BlockLength = 512, BlocksPerRead = 128; // no transfer returns more than 64 KiB
    const int Outstanding = 4;

    static int Main(string[] args)
    {
        var stop = new CancellationTokenSource();
        Console.CancelKeyPress += (sender, e) => {
            e.Cancel = true; // Main() leaves cleanly
            stop.Cancel();
        };
        try
        {
            if (args.Length != 1)
                throw new ArgumentException("usage: Photo FILE");
            File.WriteAllBytes(args[0], TakePhoto(stop.Token));
            Console.WriteLine("read {0} bytes", Length);
            return 0;
        }
        catch (Exception error)
        {
            Console.Error.WriteLine("\nerror: {0}", error.Message);
            return 1;
        }
    }

    static byte[] TakePhoto(CancellationToken stop)
    {
        using (var client = new PersistentClient())
        {
            var cameras = new BlockingCollection<Camera>();
            client.CameraAttached += (sender, e) => cameras.Add(e.Camera);
            client.Disconnected += (sender, e) => Console.Error.WriteLine("no service: {0}", e.Error.Message);
            client.Open();
            while (true)
            {
                Console.Error.WriteLine("waiting for a camera");
                try
                {
                    return ReadAsync(client, cameras.Take(stop), stop).GetAwaiter().GetResult();
                }
                catch (OrvikException error)
                {
                    Console.Error.WriteLine("\nthe read failed: {0}", error.Message);
                }
            }
        }
    }

    static async Task<byte[]> ReadAsync(PersistentClient client, Camera camera, CancellationToken stop)
    {
        var photo = new MemoryStream(Length);
        var reads = new Queue<Task<byte[]>>();
        for (uint block = 0; photo.Length < Length;)
        {
            for (; reads.Count < Outstanding && block < Length / BlockLength; block += BlocksPerRead)
                reads.Enqueue(client.TransferInAsync(camera, Cdb.Read6(block, BlocksPerRead), null, stop));
            byte[] data = await reads.Dequeue();
            if (data.Length != BlocksPerRead * BlockLength)
                throw new IOException("the camera returned only a part of its memory");
            photo.Write(data, 0, data.Length);
            Console.Error.Write("\r{0} %", photo.Length * 100 / Length);
        }
        Console.Error.WriteLine();
        return photo.ToArray();
    }
}

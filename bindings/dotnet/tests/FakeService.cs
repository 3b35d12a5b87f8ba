using System;
using System.Collections.Concurrent;
using System.Collections.Generic;
using System.IO;
using System.IO.Pipes;
using System.Threading;

/// <summary>A request on the camera pipe.</summary>
sealed class Request
{
    internal Stream Pipe;
    internal uint Type;
    internal uint Number;
    internal uint Camera;
    internal byte[] Body;

    /// <summary>Answers it with the data.</summary>
    internal void Succeed(params byte[] data)
    {
        FakeService.Send(Pipe, 2, Number, Camera, data);
    }

    internal void Refuse()
    {
        FakeService.Send(Pipe, 3, Number, Camera);
    }
}

/// <summary>
/// A fake service: a camera pipe whose answers the test decides. Announces camera 1 to each client, and answers
/// the round trips of the library itself. docs/protocol.md describes the messages.
/// </summary>
sealed class FakeService : IDisposable
{
    /// <summary>All but the round trips.</summary>
    internal readonly BlockingCollection<Request> Requests = new BlockingCollection<Request>();

    internal readonly string Name = "orvik-dotnet-test-" + Guid.NewGuid().ToString("N");

    private readonly List<NamedPipeServerStream> pipes = new List<NamedPipeServerStream>();
    private readonly Thread acceptor;
    private volatile bool stopping;
    private int clients;

    internal FakeService()
    {
        NamedPipeServerStream first = MakeInstance();
        acceptor = new Thread(() => Accept(first));
        acceptor.Start();
    }

    internal string Pipe
    {
        get { return @"\\.\pipe\" + Name; }
    }

    /// <summary>The number of clients that have connected.</summary>
    internal int Clients
    {
        get { return Volatile.Read(ref clients); }
    }

    /// <summary>The first client has disconnected.</summary>
    internal readonly ManualResetEventSlim FirstClientHasGone = new ManualResetEventSlim();

    internal Request NextRequest()
    {
        Request request;
        if (!Requests.TryTake(out request, Tests.Deadline))
            throw new Exception("no request came");
        return request;
    }

    public void Dispose()
    {
        stopping = true;
        using (var last = new NamedPipeClientStream(".", Name, PipeDirection.InOut))
            last.Connect((int)Tests.Deadline.TotalMilliseconds);
        acceptor.Join();
        foreach (var pipe in pipes)
            pipe.Dispose();
    }

    internal static void Announce(Stream pipe, uint camera)
    {
        Send(pipe, 4, 0xFFFFFFFF, camera);
    }

    internal static void Send(Stream pipe, uint type, uint number, uint camera, params byte[] body)
    {
        var bytes = new byte[16 + body.Length];
        var fields = new[] { type, number, camera, (uint)body.Length };
        Buffer.BlockCopy(fields, 0, bytes, 0, 16);
        body.CopyTo(bytes, 16);
        pipe.Write(bytes, 0, bytes.Length);
    }

    private NamedPipeServerStream MakeInstance()
    {
        var pipe = new NamedPipeServerStream(Name, PipeDirection.InOut,
                                             NamedPipeServerStream.MaxAllowedServerInstances,
                                             PipeTransmissionMode.Byte, PipeOptions.Asynchronous, 65536,
                                             65536);
        pipes.Add(pipe);
        return pipe;
    }

    // As in the service, one instance waits for a client at any time.
    private void Accept(NamedPipeServerStream listening)
    {
        while (true)
        {
            bool stays = true;
            try
            {
                listening.WaitForConnection();
            }
            catch (IOException)
            {
                stays = false; // the client has disconnected already
            }
            if (stopping)
                return;
            NamedPipeServerStream connected = listening;
            int number = Interlocked.Increment(ref clients);
            listening = MakeInstance();
            if (stays)
                new Thread(() => Serve(connected, number)) { IsBackground = true }.Start();
        }
    }

    private void Serve(Stream pipe, int number)
    {
        try
        {
            Announce(pipe, 1);
            while (true)
            {
                byte[] header = Read(pipe, 16);
                var request = new Request {
                    Pipe = pipe,
                    Type = BitConverter.ToUInt32(header, 0),
                    Number = BitConverter.ToUInt32(header, 4),
                    Camera = BitConverter.ToUInt32(header, 8),
                    Body = Read(pipe, BitConverter.ToInt32(header, 12)),
                };
                if (request.Body.Length < 16)
                    request.Refuse();
                else
                    Requests.Add(request);
            }
        }
        catch (Exception error) when (error is IOException || error is ObjectDisposedException)
        {
            if (number == 1)
                FirstClientHasGone.Set();
        }
    }

    private static byte[] Read(Stream pipe, int length)
    {
        var bytes = new byte[length];
        for (int done = 0; done < length;)
        {
            int count = pipe.Read(bytes, done, length - done);
            if (count == 0)
                throw new EndOfStreamException();
            done += count;
        }
        return bytes;
    }
}

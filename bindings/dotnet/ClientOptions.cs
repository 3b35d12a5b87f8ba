using System;
using System.Runtime.InteropServices;

namespace Orvik
{
    /// <summary>How to connect. A new object has the defaults of orvik.dll.</summary>
    public sealed class ClientOptions
    {
        /// <summary>Sets the defaults.</summary>
        public ClientOptions()
        {
            Native.orvik_options native;
            OrvikException.ThrowIfFailed(
                Native.orvik_options_init(out native, (uint)Marshal.SizeOf<Native.orvik_options>()));
            ConnectTimeout = TimeSpan.FromMilliseconds(native.timeout_ms);
            GoneWait = TimeSpan.FromMilliseconds(native.gone_wait_ms);
            TransferOutLimit = (int)native.transfer_out_limit;
            CheckServer = native.check_server != 0;
        }

        /// <summary>Of each attempt to connect; 5 s.</summary>
        public TimeSpan ConnectTimeout { get; set; }

        /// <summary>
        /// How long a refusal waits for the report that the camera has gone, which turns
        /// <see cref="ErrorKind.Refused"/> into <see cref="ErrorKind.CameraGone"/>; 100 ms.
        /// </summary>
        public TimeSpan GoneWait { get; set; }

        /// <summary>
        /// Maximum length of the data of a transfer to the camera; 65536. Set more only for a camera that is
        /// known to accept it: otherwise the service gives up the camera until it is plugged in again.
        /// </summary>
        public int TransferOutLimit { get; set; }

        /// <summary>
        /// Whether to check, before anything is sent, that the pipe's server is the process that runs as
        /// OrvikService; true. Set false for a service that runs in a console.
        /// </summary>
        public bool CheckServer { get; set; }

        /// <summary>The name of the pipe, for tests; null: the service's own.</summary>
        public string Pipe { get; set; }
    }
}

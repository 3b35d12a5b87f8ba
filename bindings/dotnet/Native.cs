// The functions and structures of orvik.dll, as client/include/orvik/orvik.h describes them.

using System;
using System.Runtime.InteropServices;
using System.Text;

// orvik.dll is looked for beside the assembly first, and never in the current directory.
[assembly: DefaultDllImportSearchPaths(DllImportSearchPath.AssemblyDirectory |
                                       DllImportSearchPath.SafeDirectories)]

namespace Orvik
{
    /// <summary>A client of orvik.dll. Closes it when no call with it is in progress any more.</summary>
    internal sealed class ClientHandle : SafeHandle
    {
        /// <summary>What the native client passes to its event callback; freed after the client.</summary>
        internal GCHandle User;

        private ClientHandle() : base(IntPtr.Zero, true) {}

        public override bool IsInvalid
        {
            get { return handle == IntPtr.Zero; }
        }

        protected override bool ReleaseHandle()
        {
            Native.orvik_client_close(handle);
            if (User.IsAllocated)
                User.Free();
            return true;
        }
    }

    /// <summary>An asynchronous request of orvik.dll.</summary>
    internal sealed class RequestHandle : SafeHandle
    {
        private RequestHandle() : base(IntPtr.Zero, true) {}

        public override bool IsInvalid
        {
            get { return handle == IntPtr.Zero; }
        }

        protected override bool ReleaseHandle()
        {
            Native.orvik_request_close(handle);
            return true;
        }
    }

    internal static class Native
    {
        private const string Dll = "orvik.dll";

        internal const int Ok = 0;
        internal const int BufferTooSmall = 17;

        internal const int EventConnected = 1;
        internal const int EventDisconnected = 2;
        internal const int EventAttached = 3;
        internal const int EventDetached = 4;

        internal const uint TransferTimeout = 30000;
        internal const uint NoTimeout = 0xFFFFFFFF;
        internal const int TransferInLimit = 65536;

        [StructLayout(LayoutKind.Sequential)]
        internal struct orvik_event
        {
            internal uint size;
            internal int kind;
            internal ulong camera;
            internal int status;
            internal uint system_code;
            internal IntPtr text;
        }

        [StructLayout(LayoutKind.Sequential)]
        internal struct orvik_options
        {
            internal uint size;
            internal uint timeout_ms;
            internal uint gone_wait_ms;
            internal uint transfer_out_limit;
            internal uint check_server;
            internal IntPtr pipe;
            internal IntPtr canceller;
            internal IntPtr on_event;
            internal IntPtr user;
        }

        [StructLayout(LayoutKind.Sequential)]
        internal struct orvik_result
        {
            internal uint size;
            internal int status;
            internal uint system_code;
            internal uint length;
            internal IntPtr data;
            internal IntPtr text;
        }

        [StructLayout(LayoutKind.Sequential)]
        internal struct orvik_inquiry
        {
            internal uint size;
            internal byte device_type;
            internal byte removable;
            [MarshalAs(UnmanagedType.ByValArray, SizeConst = 9)] internal byte[] vendor;
            [MarshalAs(UnmanagedType.ByValArray, SizeConst = 17)] internal byte[] product;
            [MarshalAs(UnmanagedType.ByValArray, SizeConst = 5)] internal byte[] revision;
            [MarshalAs(UnmanagedType.ByValArray, SizeConst = 3)] internal byte[] reserved;
        }

        [StructLayout(LayoutKind.Sequential)]
        internal struct orvik_capacity
        {
            internal uint size;
            internal uint block_length;
            internal ulong block_count;
        }

        [StructLayout(LayoutKind.Sequential)]
        internal struct orvik_sense
        {
            internal uint size;
            internal byte key;
            internal byte code;
            internal byte qualifier;
            internal byte deferred;
            [MarshalAs(UnmanagedType.ByValArray, SizeConst = 128)] internal byte[] text;
        }

        [UnmanagedFunctionPointer(CallingConvention.Cdecl)]
        internal delegate void orvik_event_callback(IntPtr client, ref orvik_event what, IntPtr user);

        [UnmanagedFunctionPointer(CallingConvention.Cdecl)]
        internal delegate void orvik_completion(ref orvik_result result, IntPtr user);

        [DllImport(Dll, CallingConvention = CallingConvention.Cdecl)]
        internal static extern IntPtr orvik_status_text(int status);
        [DllImport(Dll, CallingConvention = CallingConvention.Cdecl)]
        internal static extern IntPtr orvik_last_error_text();
        [DllImport(Dll, CallingConvention = CallingConvention.Cdecl)]
        internal static extern uint orvik_last_error_system_code();
        [DllImport(Dll, CallingConvention = CallingConvention.Cdecl)]
        internal static extern IntPtr orvik_version();

        [DllImport(Dll, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int orvik_options_init(out orvik_options options, uint size);
        [DllImport(Dll, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int orvik_client_open(ref orvik_options options, out ClientHandle client);
        [DllImport(Dll, CallingConvention = CallingConvention.Cdecl)]
        internal static extern void orvik_client_close(IntPtr client);
        [DllImport(Dll, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int orvik_client_cameras(ClientHandle client, [Out] ulong[] cameras,
                                                        uint capacity, out uint count);

        [DllImport(Dll, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int orvik_transfer_in(ClientHandle client, ulong camera, byte[] cdb,
                                                     uint cdb_length, [Out] byte[] data, uint capacity,
                                                     out uint length, uint timeout_ms);
        [DllImport(Dll, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int orvik_transfer_out(ClientHandle client, ulong camera, byte[] cdb,
                                                      uint cdb_length, byte[] data, uint length,
                                                      uint timeout_ms);
        [DllImport(Dll, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int orvik_transfer_no_data(ClientHandle client, ulong camera, byte[] cdb,
                                                          uint cdb_length, uint timeout_ms);

        [DllImport(Dll, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int orvik_start_in(ClientHandle client, ulong camera, byte[] cdb,
                                                  uint cdb_length, orvik_completion completion,
                                                  IntPtr user, uint timeout_ms, out RequestHandle request);
        [DllImport(Dll, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int orvik_start_out(ClientHandle client, ulong camera, byte[] cdb,
                                                   uint cdb_length, byte[] data, uint length,
                                                   orvik_completion completion, IntPtr user,
                                                   uint timeout_ms, out RequestHandle request);
        [DllImport(Dll, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int orvik_start_no_data(ClientHandle client, ulong camera, byte[] cdb,
                                                       uint cdb_length, orvik_completion completion,
                                                       IntPtr user, uint timeout_ms,
                                                       out RequestHandle request);
        [DllImport(Dll, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int orvik_request_cancel(RequestHandle request);
        [DllImport(Dll, CallingConvention = CallingConvention.Cdecl)]
        internal static extern void orvik_request_close(IntPtr request);

        [DllImport(Dll, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int orvik_cdb_inquiry([Out] byte[] cdb);
        [DllImport(Dll, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int orvik_cdb_test_unit_ready([Out] byte[] cdb);
        [DllImport(Dll, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int orvik_cdb_read_capacity([Out] byte[] cdb);
        [DllImport(Dll, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int orvik_cdb_request_sense([Out] byte[] cdb);
        [DllImport(Dll, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int orvik_cdb_read6(uint first, uint count, [Out] byte[] cdb);
        [DllImport(Dll, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int orvik_cdb_write6(uint first, uint count, [Out] byte[] cdb);
        [DllImport(Dll, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int orvik_decode_inquiry(byte[] data, uint length, ref orvik_inquiry inquiry);
        [DllImport(Dll, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int orvik_decode_capacity(byte[] data, uint length,
                                                         ref orvik_capacity capacity);
        [DllImport(Dll, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int orvik_decode_sense(byte[] data, uint length, ref orvik_sense sense);
        [DllImport(Dll, CallingConvention = CallingConvention.Cdecl)]
        internal static extern int orvik_get_sense(ClientHandle client, ulong camera, ref orvik_sense sense,
                                                   uint timeout_ms);

        /// <summary>A text of the library.</summary>
        internal static string Text(IntPtr utf8)
        {
            int length = 0;
            while (Marshal.ReadByte(utf8, length) != 0)
                ++length;
            var bytes = new byte[length];
            Marshal.Copy(utf8, bytes, 0, length);
            return Encoding.UTF8.GetString(bytes);
        }

        /// <summary>A text in a field of a structure.</summary>
        internal static string Text(byte[] field)
        {
            return Encoding.UTF8.GetString(field, 0, Array.IndexOf(field, (byte)0));
        }

        /// <summary>In milliseconds, rounded up. Throws ArgumentOutOfRangeException.</summary>
        internal static uint Milliseconds(TimeSpan time)
        {
            if (time == System.Threading.Timeout.InfiniteTimeSpan)
                return NoTimeout;
            double milliseconds = Math.Ceiling(time.TotalMilliseconds);
            if (milliseconds < 0 || milliseconds >= NoTimeout)
                throw new ArgumentOutOfRangeException(
                    nameof(time), time, "must be infinite, or from 0 to 4294967294 milliseconds");
            return (uint)milliseconds;
        }
    }
}
